#include "nic/MediaCheck.h"
#include "base/Globals.h"
#include "base/Owners.h"
#include "report/Output.h"

namespace {

// An idle NIC: started, initialized, read, and stopped again.
EFI_STATUS ReadIdle(EFI_SIMPLE_NETWORK_PROTOCOL* snp, const MediaCheckRules& rules, MediaState* state) {
  LogPrintGiven(rules.Starting);
  EFI_STATUS status = snp->Start(snp);
  if (EFI_ERROR(status)) {
    LogPrintGiven(rules.StartFailed, status);
    return status;
  }
  status = snp->Initialize(snp, 0, 0);
  if (EFI_ERROR(status)) {
    LogPrintGiven(rules.InitializeFailed, status);
    if (rules.StopAfterFailedInitialize)
      snp->Stop(snp);
    return status;
  }
  state->Present = snp->Mode->MediaPresent;
  LogPrintGiven(rules.Present, UINTN(state->Present));
  snp->Shutdown(snp);
  snp->Stop(snp);
  return EFI_SUCCESS;
}

// A NIC somebody runs: its driver refreshes the media state when asked for its status.
EFI_STATUS ReadRunning(EFI_SIMPLE_NETWORK_PROTOCOL* snp, const MediaCheckRules& rules, MediaState* state) {
  LogPrintGiven(rules.Running, UINTN(snp->Mode->State));
  UINT32 interrupts = 0;
  EFI_STATUS status = snp->GetStatus(snp, &interrupts, nullptr);
  LogPrintGiven(rules.StatusRead, status);
  if (EFI_ERROR(status)) {
    LogPrintGiven(rules.StatusFailed, status);
    return status;
  }
  state->Present = snp->Mode->MediaPresent;
  LogPrintGiven(rules.Present, UINTN(state->Present));
  return EFI_SUCCESS;
}

} // namespace

EFI_STATUS CheckMedia(EFI_HANDLE Nic, const MediaCheckRules& Rules, MediaState* State) {
  wc::OpenedProtocol<EFI_SIMPLE_NETWORK_PROTOCOL> snp;
  EFI_STATUS status = snp.Open(Nic, EFI_SIMPLE_NETWORK_PROTOCOL_GUID, gImageHandle, nullptr,
                               EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL);
  if (EFI_ERROR(status)) {
    LogPrintGiven(Rules.OpenFailed, status);
    return status;
  }
  EFI_SIMPLE_NETWORK_PROTOCOL* p = snp.Get();
  if (p == nullptr || p->Mode == nullptr)
    return EFI_DEVICE_ERROR; // a driver without mode data cannot say anything about the cable
  if (!p->Mode->MediaPresentSupported) {
    LogPrintGiven(Rules.NotSupported);
    return EFI_UNSUPPORTED;
  }
  MediaState read = {false, p->Mode->PermanentAddress};
  status = p->Mode->State == EfiSimpleNetworkInitialized ? ReadRunning(p, Rules, &read)
                                                         : ReadIdle(p, Rules, &read);
  if (!EFI_ERROR(status))
    *State = read;
  return status;
}
