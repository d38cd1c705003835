#include "nic/MediaCheck.h"
#include "base/Globals.h"
#include "base/Owners.h"
#include "nic/ServiceChildren.h"

namespace {

// An idle NIC: started, initialized, read, and stopped again.
void ReadIdle(EFI_SIMPLE_NETWORK_PROTOCOL* snp, bool stopAfterFailedInitialize, MediaReport* report) {
  report->Status = snp->Start(snp);
  if (EFI_ERROR(report->Status)) {
    report->Step = MediaStep::StartFailed;
    return;
  }
  report->Status = snp->Initialize(snp, 0, 0);
  if (EFI_ERROR(report->Status)) {
    report->Step = MediaStep::InitializeFailed;
    if (stopAfterFailedInitialize)
      snp->Stop(snp);
    return;
  }
  report->Present = snp->Mode->MediaPresent;
  report->Step = MediaStep::Read;
  snp->Shutdown(snp);
  snp->Stop(snp);
}

// A NIC somebody runs: its driver refreshes the media state when asked for its status.
void ReadRunning(EFI_SIMPLE_NETWORK_PROTOCOL* snp, MediaReport* report) {
  UINT32 interrupts = 0;
  report->StatusRead = snp->GetStatus(snp, &interrupts, nullptr);
  report->Status = report->StatusRead;
  if (EFI_ERROR(report->Status)) {
    report->Step = MediaStep::StatusFailed;
    return;
  }
  report->Present = snp->Mode->MediaPresent;
  report->Step = MediaStep::Read;
}

EFI_STATUS ReadThroughSimpleNetwork(EFI_HANDLE nic, bool stopAfterFailedInitialize, MediaReport* report) {
  wc::OpenedProtocol<EFI_SIMPLE_NETWORK_PROTOCOL> snp;
  report->Status = snp.Open(nic, EFI_SIMPLE_NETWORK_PROTOCOL_GUID, gImageHandle, nullptr,
                            EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL);
  if (EFI_ERROR(report->Status)) {
    report->Step = MediaStep::OpenFailed;
    return report->Status;
  }
  EFI_SIMPLE_NETWORK_PROTOCOL* p = snp.Get();
  if (p == nullptr || p->Mode == nullptr) {
    report->Step = MediaStep::NoModeData; // a driver without mode data cannot say anything about the cable
    return report->Status = EFI_DEVICE_ERROR;
  }
  report->Permanent = p->Mode->PermanentAddress;
  if (!p->Mode->MediaPresentSupported) {
    report->Step = MediaStep::NotSupported;
    return report->Status = EFI_UNSUPPORTED;
  }
  report->FoundState = p->Mode->State;
  report->FoundRunning = p->Mode->State == EfiSimpleNetworkInitialized;
  if (report->FoundRunning)
    ReadRunning(p, report);
  else
    ReadIdle(p, stopAfterFailedInitialize, report);
  return report->Status;
}

EFI_STATUS ReadThroughManagedNetwork(EFI_HANDLE nic, MediaReport* report) {
  BOOLEAN supported = FALSE, present = FALSE;
  report->Status = ReadMediaState(gImageHandle, nic, &supported, &present);
  if (EFI_ERROR(report->Status)) {
    report->Step = MediaStep::OpenFailed;
    return report->Status;
  }
  if (!supported) {
    report->Step = MediaStep::NotSupported;
    return report->Status = EFI_UNSUPPORTED;
  }
  report->Step = MediaStep::Read;
  report->Present = present;
  return EFI_SUCCESS;
}

} // namespace

EFI_STATUS ReadMedia(EFI_HANDLE Nic, MediaPath Path, bool StopAfterFailedInitialize, MediaReport* Report) {
  *Report = {};
  Report->Step = MediaStep::OpenFailed;
  return Path == MediaPath::SimpleNetwork ? ReadThroughSimpleNetwork(Nic, StopAfterFailedInitialize, Report)
                                          : ReadThroughManagedNetwork(Nic, Report);
}

void StallMicroseconds(UINTN Microseconds) {
  gBS->Stall(Microseconds);
}
