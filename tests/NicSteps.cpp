#include "tests/NicSteps.h"

#include "base/String.h"
#include "nic/Inventory.h"
#include "report/Output.h"
#include "nic/FirmwareTraits.h"
#include "report/Progress.h"

void SayMedia(const MediaReport& Report, const MediaWords& Words) {
  switch (Report.Step) {
  case MediaStep::OpenFailed:
    LogPrintGiven(Words.OpenFailed, Report.Status);
    return;
  case MediaStep::NoModeData:
    return;
  case MediaStep::NotSupported:
    LogPrintGiven(Words.NotSupported);
    return;
  default:
    break;
  }
  if (Report.FoundRunning) {
    LogPrintGiven(Words.Running, UINTN(Report.FoundState));
    LogPrintGiven(Words.StatusRead, Report.StatusRead);
    if (Report.Step == MediaStep::StatusFailed) {
      LogPrintGiven(Words.StatusFailed, Report.Status);
      return;
    }
  } else {
    LogPrintGiven(Words.Starting);
    if (Report.Step == MediaStep::StartFailed) {
      LogPrintGiven(Words.StartFailed, Report.Status);
      return;
    }
    if (Report.Step == MediaStep::InitializeFailed) {
      LogPrintGiven(Words.InitializeFailed, Report.Status);
      return;
    }
  }
  LogPrintGiven(Words.Present, UINTN(Report.Present));
}

void SayWhyNoNetworkStack() {
  StackSight sight = LookAtNetworkStack();
  if (sight.SimpleNetworks == 0) {
    LogPrint(u"No simple network either: no NIC, or no driver for it, is in the firmware.\r\n");
    return;
  }
  if (!sight.Rng)
    LogPrint(
        u"The network stack did not start on the %d NIC(s) the firmware drives: it has no random-number "
        u"generator (EFI_RNG_PROTOCOL), without which EDK2's network drivers since 2024 do not start.\r\n",
        sight.SimpleNetworks);
  else if (sight.Unbound != 0)
    LogPrint(u"The network stack did not start on %d of %d NIC(s): no network driver is connected to them "
             u"(the shell's connect -r connects them).\r\n",
             sight.Unbound, sight.SimpleNetworks);
  else
    LogPrint(
        u"The network stack did not start although the NICs have drivers and the firmware a random-number "
        u"generator: the managed-network service binding is missing.\r\n");
}

NicChoice ChooseNicSaying(const NicChoiceTexts& Texts, UINT16 DeviceId, UINT64 Index,
                          wc::HandleBuffer& Handles, EFI_HANDLE* Nic, EFI_STATUS* Status) {
  NicChoice choice = ChooseNic(DeviceId, Index, Handles, Nic, Status);
  switch (choice) {
  case NicChoice::NoNic:
    for (const CHAR16* const* line = Texts.NoHandles; *line != nullptr; ++line)
      LogPrint(*line);
    SayWhyNoNetworkStack();
    break;
  case NicChoice::LookupFailed:
    for (const CHAR16* const* line = Texts.LookupFailed; *line != nullptr; ++line)
      LogPrint(*line, *Status);
    break;
  case NicChoice::NotThere:
  case NicChoice::Chosen:
    LogPrintGiven(Texts.Found, Handles.Count());
    if (choice == NicChoice::NotThere)
      LogPrint(Texts.NotThere);
    break;
  }
  return choice;
}

namespace {
constexpr CableWaitPlan kCablePlan = {.Passes = 1, .Checks = 6, .Pause = 1000000, .PauseFirst = false};
constexpr UINTN kPromptConnectCable = 25;
} // namespace

void SayServingDriver(EFI_HANDLE Nic, const CHAR16* Which) {
  wc::PoolPtr<CHAR16> name;
  EFI_STATUS status = GetServingDriverName(Nic, "eng", name.Receive());
  if (EFI_ERROR(status) || !name)
    LogPrint(u"%s: no driver gives its name (%r); the cable verdict is its driver's.\r\n", Which, status);
  else
    LogPrint(u"%s is served by the driver \"%s\"; the cable verdict is that driver's.\r\n", Which,
             name.Get());
}

bool WaitForCableAtPrompt(EFI_HANDLE Nic) {
  SayServingDriver(Nic, u"The chosen NIC");
  auto check = [Nic] {
    MediaReport media = {};
    EFI_STATUS status = ReadMedia(Nic, MediaPath::ManagedNetworkChild, false, &media);
    return EFI_ERROR(status) || media.Present ? CableSeen::Present : CableSeen::Absent;
  };
  auto noCableYet = [](UINTN, UINTN check) {
    if (check == 0)
      PromptMessage(kPromptConnectCable, u"Wirecheck.msg.xml");
    return true;
  };
  return WaitForCable(kCablePlan, check, noCableYet, StallMicroseconds) == CableWaitEnd::Cabled;
}

EFI_HANDLE NicWithDevicePath(const wc::HandleBuffer& Handles, const CHAR16* Wanted) {
  for (UINTN i = 0; Wanted != nullptr && i < Handles.Count(); ++i) {
    wc::PoolPtr<CHAR16> text;
    DevicePathTextOf(Handles[i], text);
    if (text && StrFind(text.Get(), Wanted) != nullptr) {
      LogPrint(u"The NIC device path:%s\r\n", text.Get());
      return Handles[i];
    }
  }
  return nullptr;
}
