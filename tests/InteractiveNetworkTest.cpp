// interactivenetworktest: the operator picks a NIC, plugs the cable in, and the NIC's IPv4
// configuration is proven by pinging its gateway; failing that, the NICs are switched to DHCP, this
// test runs DHCP itself and pings the DHCP server.
#include "base/Globals.h"
#include "base/Owners.h"
#include "nic/Inventory.h"
#include "tests/NicMenu.h"
#include "nic/NicAccess.h"
#include "nic/NicConfig.h"
#include "tests/NicSteps.h"
#include "ping/BringUp.h"
#include "report/Output.h"
#include "report/Progress.h"
#include "report/TestRun.h"
#include "support/DebugLog.h"
#include "options/Declared.h"

EFI_STATUS InteractiveNetworkTest(UINTN* Result, UINTN* ErrorCode);

namespace {

struct InteractiveOptions {
  CHAR8 Language[6]; // the low byte of each character, at most five
  UINT64 Retries;
};

constexpr auto kOptions = DeclareOptions<InteractiveOptions>(
    OptionField<InteractiveOptions>({.Name = u"-Lang",
                                     .Description = u"Specify the language for prompt message.",
                                     .Type = OPTION_TYPE_STRING,
                                     .Default = u"eng"},
                                    [](InteractiveOptions& o, const OptionRead& v) {
                                      const CHAR16* text = OptionText(v.Value);
                                      for (UINTN i = 0; text != nullptr && i < 5 && text[i] != 0; ++i)
                                        o.Language[i] = CHAR8(text[i]);
                                      return EFI_SUCCESS;
                                    }),
    OptionField<InteractiveOptions>(
        {.Name = u"-retries",
         .Description = u"Number of retries in case of failure.",
         .Type = OPTION_TYPE_INTEGER,
         .Default = u"0",
         .Low = u"0",
         .High = u"10"},
        [](InteractiveOptions& o, const OptionRead& v) { return Store(o.Retries, v); }));

constexpr UINTN kGroup = TestErrorGroup(2);
constexpr UINTN kNoCable = kGroup + 0x01;
constexpr UINTN kNotConfigured = kGroup + 0x02;
constexpr UINTN kNoAnswer = kGroup + 0x03;
static_assert(ERROR_CODE_NO_NIC == 0x80160103 && kNoCable == 0x80160301);
constexpr ErrorMeaning kErrors[] = {
    {kNoCable, u"no cable detected"},
    {kNotConfigured, u"the network could not be configured"},
    {kNoAnswer, u"the remote host did not answer"},
    {},
};

// The progress bar runs from 1 % to 99 % over these positions, 60 seconds from end to end; the DHCP
// and ping attempts and the address wait fill the 30 points after 30 and after 60.
constexpr ProgressPoint AtPercent(UINTN Percent) {
  return ProgressAt(Percent, 60);
}
constexpr ProgressPoint kStart = AtPercent(1);
constexpr ProgressPoint kMenusFound = AtPercent(5);
constexpr ProgressPoint kNicsFound = AtPercent(10);
constexpr ProgressPoint kNicChosen = AtPercent(20);
constexpr ProgressPoint kCableAgain = AtPercent(25);
constexpr ProgressPoint kCabled = AtPercent(30);
constexpr ProgressPoint kConfigured = AtPercent(60);
constexpr ProgressPoint kDone = AtPercent(99);
static_assert(kMenusFound.Seconds == 57 && kCabled.Seconds == 42 && kConfigured.Seconds == 23);
constexpr UINTN kDhcpBase = 30, kPingBase = 60;

constexpr const CHAR16* kMessageFile = u"Wirecheck.msg.xml";
constexpr UINTN kPromptNoNic = 101, kPromptNoCableYet = 104, kPromptNoCable = 105;
constexpr UINTN kPromptNotConfigured = 106, kPromptNotConfiguredNoLink = 107;
constexpr UINTN kCableChecks = 5;

// The media read as this test words it; a NIC whose Initialize fails is left started.
constexpr MediaWords kMediaWords = {
    .OpenFailed = u"Failed Open Simple Network Protocol!(%r)\r\n",
    .NotSupported = u"Media Present Not Supported!\r\n",
    .Starting = u"Start and initialize NIC device...\r\n",
    .StartFailed = u"Failed Start NIC device!(%r)\r\n",
    .InitializeFailed = u"Failed Initialize NIC device!(%r)\r\n",
    .Running = u"NIC device has been initialized.\r\n",
    .StatusRead = nullptr,
    .StatusFailed = u"Failed Get NIC Status!(%r)\r\n",
    .Present = u"Media Present Status is %d\r\n",
};
constexpr UINTN kSecond = 1000000;

// This test's echo replies and identifier, apart from the ping test's.
constinit EchoCounter gEchoes = {0, 0};

class InteractiveRun : public TestRun {
public:
  ~InteractiveRun() {
    if (selected_ != nullptr && selected_->Ip4Config2InterfaceInfo != nullptr) {
      DebugLogPrint(u"Freeing pIp4Config2InterfaceInfo at End of Test \r\n");
      FreePool(selected_->Ip4Config2InterfaceInfo);
      selected_->Ip4Config2InterfaceInfo = nullptr;
    }
  }

  void Execute() {
    Show(kStart);
    EFI_IPv4_ADDRESS remote = {};
    if (!ReadOptions() || !FindMenus() || !ChooseNic() || !WaitForCable() || !HasIpv4())
      return;
    if (!GatewayAnswers(&remote) && !ConfigureByDhcp(&remote))
      return;
    LogPrint(u"Remote IP Address: %d.%d.%d.%d\r\n", remote.Addr[0], remote.Addr[1], remote.Addr[2],
             remote.Addr[3]);
    if (Report(kConfigured))
      PingRemote(remote);
  }

private:
  bool ReadOptions();
  bool FindMenus();
  bool ChooseNic();
  bool WaitForCable();
  bool HasIpv4();
  // The NIC's existing configuration first: its default gateway answers one ping when it works.
  bool GatewayAnswers(EFI_IPv4_ADDRESS* Remote);
  bool ConfigureByDhcp(EFI_IPv4_ADDRESS* Remote);
  bool PingRemote(const EFI_IPv4_ADDRESS& Remote);
  // Its pings: the reply lines logged, the address awaited in counted ticks.
  EchoPolicy Echo() const { return {&gEchoes, false, AddressWait::CountedTicks, &firmware_}; }

  // From the second attempt on: the retry line and a report within the 30 points after Base.
  bool StartAttempt(UINT64 Attempt, UINTN Base) {
    if (Attempt == 0)
      return true;
    LogPrint(u"Retrying %d times...\r\n", Attempt);
    return Report(AtPercent(UINTN((Attempt + 1) * 30 / (options_.Retries + 1) + Base)));
  }
  // The bring-up's reports: the address wait's ticks fill 30 points after 30, and from the second
  // DHCP attempt on each attempt its share of them.
  static bool AddressWaitTick(void* Context, UINTN Ticks, UINTN Total) {
    return static_cast<InteractiveRun*>(Context)->Report(AtPercent(Ticks * 30 / Total + kDhcpBase));
  }
  static bool BeforeDhcpAttempt(void* Context, UINTN Attempt, bool) {
    return static_cast<InteractiveRun*>(Context)->StartAttempt(Attempt, kDhcpBase);
  }

  InteractiveOptions options_ = {};
  NicMenuProtocols menus_ = {};
  OrderedListOwner nics_;
  NicInfo* selected_ = nullptr;
  UINTN failurePrompt_ = kPromptNotConfigured;
  FirmwareTraits firmware_ = kAssumedFirmware;
};

bool InteractiveRun::ReadOptions() {
  // A getter failure ends the test without a line of its own.
  if (EFI_ERROR(kOptions.Reader().Read(options_, nullptr, true)))
    return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
  return true;
}

bool InteractiveRun::FindMenus() {
  if (EFI_ERROR(LocateMenuProtocols(&menus_)) ||
      EFI_ERROR(OrderedListCreate(nics_.Receive(), nullptr, FreeNicInfo)))
    return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
  firmware_ = ReadFirmwareTraits();
  return Report(kMenusFound);
}

bool InteractiveRun::ChooseNic() {
  UINT64 count = 0;
  EFI_STATUS status = BuildNicInventory(options_.Language, nics_.Get(), &count);
  if (status == EFI_NOT_FOUND || (!EFI_ERROR(status) && count == 0)) {
    PromptMessage(kPromptNoNic, kMessageFile);
    LogPrint(u"No NIC device is found!\r\n");
    SayWhyNoNetworkStack();
    return End(Outcome::Failed(ERROR_CODE_NO_NIC));
  }
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed find NIC device!(%r)\r\n", status);
    return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
  }
  LogPrint(u"Found %d NIC Device(s).\r\n", count);
  if (!Report(kNicsFound))
    return false;
  if (count >= 2) {
    status = SelectNic(menus_, options_.Language, nics_.Get(), &selected_);
    if (status == EFI_ABORTED)
      return End(Outcome::Ended(TEST_RESULT_CANCELLED, ERROR_CODE_OPERATOR_ABORT));
    if (EFI_ERROR(status))
      return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
  } else {
    selected_ = static_cast<NicInfo*>(nics_->First->Element);
  }
  CHAR16 mac[32];
  FormatMacText(selected_->MacAddress, mac, sizeof(mac));
  LogPrint(u"Selected NIC Device: %s\r\n", mac);
  return Report(kNicChosen);
}

bool InteractiveRun::WaitForCable() {
  LogPrint(u"Starting Detect Cable...\r\n");
  SayServingDriver(selected_->NicHandle, u"The chosen NIC");
  EFI_STATUS status = EFI_SUCCESS;
  // Two passes of five reads, a second before each; between them the operator is asked for the cable.
  // A NIC that cannot report its media counts as cabled; a read that fails otherwise ends the test.
  constexpr CableWaitPlan kPlan = {.Passes = 2, .Checks = kCableChecks, .Pause = kSecond, .PauseFirst = true};
  auto check = [&] {
    MediaReport media = {};
    status = ReadMedia(selected_->NicHandle, MediaPath::SimpleNetwork, false, &media);
    SayMedia(media, kMediaWords);
    if (status == EFI_UNSUPPORTED) {
      failurePrompt_ = kPromptNotConfiguredNoLink;
      return CableSeen::Present;
    }
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed detect cable!(%r)\r\n", status);
      End(Outcome::Ended(TEST_RESULT_WARNING, ERROR_CODE_SOFTWARE));
      return CableSeen::Stop;
    }
    return media.Present ? CableSeen::Present : CableSeen::Absent;
  };
  auto noCableYet = [&](UINTN pass, UINTN checkNumber) {
    if (pass != 0 || checkNumber + 1 != kCableChecks)
      return true;
    if (PromptMessage(kPromptNoCableYet, kMessageFile) == EFI_ABORTED)
      return End(Outcome::Ended(TEST_RESULT_CANCELLED, ERROR_CODE_OPERATOR_ABORT));
    LogPrint(u"Retrying %d times...\r\n", 1);
    Show(kCableAgain);
    return true;
  };
  switch (::WaitForCable(kPlan, check, noCableYet, StallMicroseconds)) {
  case CableWaitEnd::Cabled:
    LogPrint(u"Network cable detected!\r\n");
    return Report(kCabled);
  case CableWaitEnd::Stopped:
    return false;
  case CableWaitEnd::NoCable:
    break;
  }
  PromptMessage(kPromptNoCable, kMessageFile);
  LogPrint(u"Network cable not detected!(%r)\r\n", status);
  return End(Outcome::Ended(TEST_RESULT_WARNING, kNoCable));
}

bool InteractiveRun::HasIpv4() {
  if (selected_->Ip4ServiceBindingProtocolHandle != nullptr)
    return true;
  LogPrint(u"IPv4 Service Binding Protocol not supported for current NIC device!\r\n");
  SayWhyNoNetworkStack();
  return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
}

bool InteractiveRun::GatewayAnswers(EFI_IPv4_ADDRESS* Remote) {
  EFI_STATUS status = GetNicConfig(selected_);
  if (!EFI_ERROR(status) && selected_->Ip4Config2InterfaceInfo != nullptr)
    *Remote = DefaultGateway(selected_->Ip4Config2InterfaceInfo);
  LogPrint(u"GetNicConfig(), Status(%r), ConfigInfo(%x)\r\n", status, selected_->Ip4Config2InterfaceInfo);
  if (IsZeroAddress(*Remote))
    return false;
  status = ExecutePingProcess(selected_->Ip4ServiceBindingProtocolHandle, *Remote, 1, nullptr, Echo());
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed to try to ping gateway ip!(%r)\r\n", status);
    return false;
  }
  LogPrint(u"Network is configured correctly.\r\n");
  return true;
}

bool InteractiveRun::ConfigureByDhcp(EFI_IPv4_ADDRESS* Remote) {
  LogPrint(u"Network not configured correctly, starting configure with DHCP...\r\n");
  if (selected_->Dhcp4ServiceBindingProtocolHandle == nullptr) {
    LogPrint(u"DHCPv4 Service Binding Protocol not supported for current NIC device!\r\n");
    return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
  }
  // Every NIC switched to DHCP, the address awaited with a report a second, then retries + 1
  // attempts of DHCP, each on a new child of five tries a second apart, only a bound lease counting.
  const BringUpPolicy policy = {
      .Rewrite = ConfigRewrite::PolicyToDhcp,
      .Echo = Echo(),
      .Dhcp = {.Attempts = UINTN(options_.Retries) + 1,
               .TriesPerChild = 5,
               .TryPause = kSecond,
               .RefusalRepeats = 0,
               .RefusalPause = 0,
               .TimeoutRepeats = 0,
               .TimeoutPause = 0,
               .RequireBound = true},
      .HoldChild = false,
  };
  const BringUpHooks hooks = {this, AddressWaitTick, BeforeDhcpAttempt};
  Ipv4BringUp up(policy, hooks);
  BringUpResult result =
      up.Run({.Ip4 = selected_->Ip4ServiceBindingProtocolHandle,
              .Dhcp4 = selected_->Dhcp4ServiceBindingProtocolHandle,
              .Config2 = selected_->Ip4Config2ProtocolHandle != nullptr ? selected_->Ip4Config2ProtocolHandle
                                                                        : selected_->NicHandle});
  switch (result.Reason) {
  case BringUpReason::Up:
    LogPrint(u"Configure Network completed!\r\n");
    *Remote = up.Lease().ServerAddress;
    return true;
  case BringUpReason::OperatorAnswered:
    return false; // the report that took the answer ended the run with it
  case BringUpReason::RewriteFailed:
    LogPrint(u"Failed SetNicConfig().(%r)\r\n", result.Status);
    return End(
        Outcome::Ended(result.Status == EFI_OUT_OF_RESOURCES ? TEST_RESULT_FAILED : TEST_RESULT_WARNING,
                       ERROR_CODE_SOFTWARE));
  case BringUpReason::NoAddress:
    PromptMessage(failurePrompt_, kMessageFile);
    LogPrint(u"Failed configure network!(%r)\r\n", result.Status);
    return End(Outcome::Failed(kNotConfigured));
  case BringUpReason::DhcpChildFailed:
    LogPrint(u"Failed open DHCPv4 Protocol!(%r)\r\n", result.Status);
    return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
  case BringUpReason::DhcpFailed:
    LogPrint(u"Failed configure network!(%r)\r\n", result.Status);
    return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
  case BringUpReason::DhcpTimedOut:
  case BringUpReason::DhcpRefused:
  case BringUpReason::DhcpNotBound:
    break;
  }
  PromptMessage(failurePrompt_, kMessageFile);
  LogPrint(u"Network Configure not completed!\r\n");
  return End(Outcome::Failed(kNotConfigured));
}

bool InteractiveRun::PingRemote(const EFI_IPv4_ADDRESS& Remote) {
  LogPrint(u"Starting Ping Remote IP Address...\r\n");
  for (UINT64 attempt = 0; attempt <= options_.Retries; ++attempt) {
    if (!StartAttempt(attempt, kPingBase))
      return false;
    EFI_STATUS status =
        ExecutePingProcess(selected_->Ip4ServiceBindingProtocolHandle, Remote, 3, nullptr, Echo());
    if (status == EFI_SUCCESS) {
      LogPrint(u"Ping DHCP Server successed!\r\n");
      Show(kDone);
      return End(Outcome::Passed());
    }
    if (EFI_ERROR(status) && status != EFI_TIMEOUT && status != EFI_NO_MAPPING) {
      LogPrint(u"Failed Ping Server!(%r)\r\n", status);
      return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
    }
  }
  LogPrint(u"Ping DHCP Server not successed!\r\n");
  return End(Outcome::Failed(kNoAnswer));
}

} // namespace

extern const TestInfo kInteractiveNetworkTest = {
    .Name = u"interactivenetworktest",
    .Description = u"This test will verifies the network interface controller is working properly.",
    .Options = kOptions.Rows,
    .Procedure = InteractiveNetworkTest,
    .RunTime = 60,
    .ErrorGroup = kGroup,
    .Errors = kErrors,
};

EFI_STATUS InteractiveNetworkTest(UINTN* Result, UINTN* ErrorCode) {
  return RunTest<InteractiveRun>(Result, ErrorCode);
}
