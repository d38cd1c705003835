#include "tests/ChoiceOptions.h"

#include "report/Output.h"

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

NicChoice ChooseNicByIndexOrPath(const NicChoiceOptions& Options, EFI_HANDLE* Nic) {
  wc::HandleBuffer handles;
  EFI_STATUS status = EFI_SUCCESS;
  NicChoice choice =
      ChooseNicSaying(kChoiceTexts, 0, Options.DevicePathGiven ? 1 : Options.Index, handles, Nic, &status);
  if (choice != NicChoice::Chosen || !Options.DevicePathGiven)
    return choice;
  if ((*Nic = NicWithDevicePath(handles, Options.DevicePath)) != nullptr)
    return NicChoice::Chosen;
  LogPrint(u"The network card you searched is not found!\r\n");
  return NicChoice::NotThere;
}
