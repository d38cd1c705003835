#include "tests/NicTestFrame.h"
#include "base/Cxx.h"
#include "base/Owners.h"
#include "nic/NicAccess.h"
#include "nic/Pci.h"
#include "options/OptionStore.h"
#include "report/Output.h"
#include "report/Results.h"
#include "uefi/protocol/ManagedNetwork.h"

EFI_STATUS ReadNicTestOption(const CHAR16* Name, UINT64* Value) {
  EFI_STATUS status = GetOptionValue(Name, Value, nullptr);
  if (EFI_ERROR(status))
    LogPrint(u"Failed to get value of option %s - %r\r\n", Name, status);
  return status;
}

EFI_STATUS ReadDeviceIdOption(UINT16* DeviceId) {
  UINT64 value = 0;
  EFI_STATUS status = ReadNicTestOption(u"-DeviceID", &value);
  if (EFI_ERROR(status))
    return status;
  const auto* text = reinterpret_cast<const CHAR16*>(static_cast<UINTN>(value));
  *DeviceId = text != nullptr && text[0] != 0 ? UINT16(StrToInteger(text, nullptr, TRUE)) : 0;
  return EFI_SUCCESS;
}

bool ChooseNic(UINT16 DeviceId, UINT64 Index, EFI_HANDLE* Nic, UINTN* Result, UINTN* ErrorCode,
               EFI_STATUS* Status) {
  *Status = EFI_SUCCESS;
  wc::HandleBuffer handles;
  EFI_STATUS status = handles.Locate(EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID);
  if (status == EFI_NOT_FOUND) {
    LogPrint(u"No MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL is found.\r\n");
    *Result = TEST_RESULT_FAILED;
    *ErrorCode = ERROR_CODE_NO_NIC;
    return false;
  }
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed Locating MNSB Protocol!(%r)\r\n", status);
    *Status = status;
    return false;
  }
  if (EFI_ERROR(SelectNicHandle(handles, DeviceId, Index, ReadNicDeviceId, Nic))) {
    LogPrint(u"The specified Network Device is not found.\r\n");
    *Result = TEST_RESULT_FAILED;
    *ErrorCode = ERROR_CODE_NIC_NOT_FOUND;
    return false;
  }
  return true;
}

bool StartNicAttempt(RetryFrame& Frame, UINT16 DeviceId, UINT64 Index, EFI_HANDLE* Nic, UINTN* Result,
                     UINTN* ErrorCode, EFI_STATUS* Status) {
  *Status = EFI_SUCCESS;
  return Frame.Begin() && ChooseNic(DeviceId, Index, Nic, Result, ErrorCode, Status);
}

EFI_STATUS RunNicTest(const NicTestSpec& Spec, UINTN* Result, UINTN* ErrorCode) {
  RetryFrame::Open();
  // The root-bridge table lives for the run: whichever way it ends, nothing of it stays allocated.
  wc::ScopeGuard releaseTable([] { FreePciRootBridgeTable(); });
  NicTestOptions o = {};
  bool read = !EFI_ERROR(ReadNicTestOption(u"-retries", &o.Retries)) &&
              !EFI_ERROR(ReadNicTestOption(u"-testrepeats", &o.TestRepeats)) &&
              !EFI_ERROR(ReadNicTestOption(u"-index", &o.Index)) &&
              !EFI_ERROR(ReadDeviceIdOption(&o.DeviceId)) &&
              (!Spec.WithSpeed || !EFI_ERROR(ReadNicTestOption(u"-NetworkSpeed", &o.NetworkSpeed))) &&
              (!Spec.WithPackets || !EFI_ERROR(ReadNicTestOption(u"-PacketsCount", &o.PacketsCount)));
  if (!read || EFI_ERROR(BuildPciRootBridgeTable())) {
    *Result = TEST_RESULT_FAILED;
    *ErrorCode = ERROR_CODE_SOFTWARE;
    return EFI_SUCCESS;
  }
  RetryFrame frame(o.Retries, Result, ErrorCode);
  UINTN repeats = o.TestRepeats > 0 ? UINTN(o.TestRepeats) : 1;
  for (; frame.More(); frame.Next()) {
    EFI_HANDLE nic = nullptr;
    EFI_STATUS status = EFI_SUCCESS;
    // Without a cable the attempt starts over and keeps its number: only the operator, through the
    // progress report, ends a wait for a cable that never comes.
    do {
      if (!StartNicAttempt(frame, o.DeviceId, o.Index, &nic, Result, ErrorCode, &status))
        return status;
    } while (Spec.WaitsForCable && !WaitForCable(nic));
    if (!frame.Advance(5))
      return EFI_SUCCESS;
    for (UINTN r = 0; r < repeats; ++r) {
      CheckOutcome outcome = Spec.Check(nic, o, Result, ErrorCode, &status);
      if (outcome == CheckOutcome::Ended)
        return status;
      if (outcome == CheckOutcome::Failed) {
        frame.Fail();
        break;
      }
      frame.Pass();
      if (!frame.Advance((frame.Share() - 5) / repeats))
        return EFI_SUCCESS;
    }
  }
  return frame.Close(Spec.PassText, Spec.FailText, Spec.FailCode);
}
