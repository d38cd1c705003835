#include "tests/ChoiceOptions.h"

#include "report/Output.h"
#include "report/Results.h"

namespace {

constexpr const CHAR16* kNoHandles[] = {u"No NIC with a network stack is found.\r\n", nullptr};
constexpr const CHAR16* kLookupFailed[] = {u"Failed Locating MNSB Protocol!(%r)\r\n", nullptr};
constexpr NicChoiceTexts kChoiceTexts = {
    .NoHandles = kNoHandles,
    .LookupFailed = kLookupFailed,
    .Found = nullptr,
    .NotThere = u"The NIC is not found!\r\n",
};

} // namespace

UINTN ChooseNicByIndexOrPath(const NicChoiceOptions& Options, UINTN NoNicCode, UINTN NotThereCode,
                             EFI_HANDLE* Nic) {
  wc::HandleBuffer handles;
  EFI_STATUS status = EFI_SUCCESS;
  switch (
      ChooseNicSaying(kChoiceTexts, 0, Options.DevicePathGiven ? 1 : Options.Index, handles, Nic, &status)) {
  case NicChoice::NoNic:
    return NoNicCode;
  case NicChoice::NotThere:
    return NotThereCode;
  case NicChoice::LookupFailed:
    return ERROR_CODE_SOFTWARE;
  case NicChoice::Chosen:
    break;
  }
  if (!Options.DevicePathGiven || (*Nic = NicWithDevicePath(handles, Options.DevicePath)) != nullptr)
    return ERROR_CODE_NONE;
  LogPrint(u"The network card you searched is not found!\r\n");
  return NotThereCode;
}
