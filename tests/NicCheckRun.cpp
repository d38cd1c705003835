#include "tests/NicCheckRun.h"
#include "base/Owners.h"
#include "nic/NicAccess.h"
#include "tests/NicSteps.h"
#include "nic/Pci.h"
#include "report/Output.h"

namespace {

constexpr const CHAR16* kNoHandles[] = {u"No MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL is found.\r\n",
                                        nullptr};
constexpr const CHAR16* kLookupFailed[] = {u"Failed Locating MNSB Protocol!(%r)\r\n", nullptr};
constexpr NicChoiceTexts kChoiceTexts = {
    .NoHandles = kNoHandles,
    .LookupFailed = kLookupFailed,
    .Found = nullptr,
    .NotThere = u"The specified Network Device is not found.\r\n",
};

} // namespace

bool NicCheckRun::StartAttempt(Attempts& Attempts, EFI_HANDLE* Nic) {
  if (!Attempts.Begin())
    return false;
  wc::HandleBuffer handles;
  EFI_STATUS status = EFI_SUCCESS;
  switch (ChooseNicSaying(kChoiceTexts, options_.DeviceId, options_.Index, handles, Nic, &status)) {
  case NicChoice::Chosen:
    return true;
  case NicChoice::NoNic:
    return End(Outcome::Failed(ERROR_CODE_NO_NIC));
  case NicChoice::NotThere:
    return End(Outcome::Failed(ERROR_CODE_NIC_NOT_FOUND));
  case NicChoice::LookupFailed:
    break;
  }
  return End(Outcome::Untouched(status));
}

bool NicCheckRun::Check(Attempts& Attempts, EFI_HANDLE Nic) {
  if (!test_.Repeats) {
    CheckOutcome outcome = test_.Check(*this, Nic);
    if (outcome == CheckOutcome::Passed)
      Attempts.Pass();
    return outcome != CheckOutcome::Ended;
  }
  if (!Attempts.Advance(5))
    return false;
  UINTN repeats = options_.TestRepeats > 0 ? UINTN(options_.TestRepeats) : 1;
  for (UINTN r = 0; r < repeats; ++r) {
    CheckOutcome outcome = test_.Check(*this, Nic);
    if (outcome == CheckOutcome::Ended)
      return false;
    if (outcome == CheckOutcome::Failed) {
      Attempts.Fail();
      return true;
    }
    Attempts.Pass();
    if (!Attempts.Advance((Attempts.Share() - 5) / repeats))
      return false;
  }
  return true;
}

void NicCheckRun::Execute() {
  Show(Attempts::kOpening);
  // The root-bridge table lives for the run: whichever way it ends, nothing of it stays allocated.
  PciRootBridgeTableOwner table;
  if (EFI_ERROR(test_.Options.Read(options_)) || EFI_ERROR(table.Build())) {
    End(Outcome::Failed(ERROR_CODE_SOFTWARE));
    return;
  }
  Attempts attempts(*this, options_.Retries);
  for (; attempts.More(); attempts.Next()) {
    EFI_HANDLE nic = nullptr;
    do {
      if (!StartAttempt(attempts, &nic))
        return;
    } while (test_.WaitsForCable && !WaitForCableAtPrompt(nic));
    if (!Check(attempts, nic))
      return;
  }
  attempts.Close(test_.PassText, test_.FailText, test_.FailCode);
}
