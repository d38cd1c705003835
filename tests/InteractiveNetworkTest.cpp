// interactivenetworktest: the operator picks a NIC, plugs the cable in, and the NIC's IPv4
// configuration is proven by pinging its gateway; failing that, the NICs are switched to DHCP, this
// test runs DHCP itself and pings the DHCP server.
#include "base/Cxx.h"
#include "base/Globals.h"
#include "nic/Inventory.h"
#include "nic/NicAccess.h"
#include "nic/NicConfig.h"
#include "nic/ServiceChildren.h"
#include "options/OptionStore.h"
#include "ping/Dhcp.h"
#include "ping/IcmpEcho.h"
#include "report/Output.h"
#include "report/Progress.h"
#include "report/Results.h"
#include "support/DebugLog.h"
#include "tests/CommonOptions.h"

EFI_STATUS InteractiveNetworkTest(UINTN* Result, UINTN* ErrorCode);

namespace {

constexpr OptionInfo kOptions[] = {
    {u"-Lang", u"Specify the language for prompt message.", OPTION_TYPE_STRING, u"eng", nullptr, nullptr,
     nullptr, FALSE},
    {u"-retries", u"Number of retries in case of failure.", OPTION_TYPE_INTEGER, u"0", u"0", u"10", nullptr,
     FALSE},
    kOptionsEnd,
};

constexpr UINTN kGroup = TestErrorGroup(2);
constexpr UINTN kNoCable = kGroup + 0x01;
constexpr UINTN kNotConfigured = kGroup + 0x02;
constexpr UINTN kNoAnswer = kGroup + 0x03;
static_assert(ERROR_CODE_NO_NIC == 0x80160103 && kNoCable == 0x80160301);

constexpr const CHAR16* kMessageFile = u"Wirecheck.msg.xml";
constexpr UINTN kPromptNoNic = 101, kPromptNoCableYet = 104, kPromptNoCable = 105;
constexpr UINTN kPromptNotConfigured = 106, kPromptNotConfiguredNoLink = 107;
constexpr UINTN kCableChecks = 5;
constexpr UINTN kDhcpTries = 5;
constexpr UINTN kSecond = 1000000;

// The address wait's progress: the last tick reported and the operator's answer.
constinit UINTN gLastTick = 0;
constinit UINTN gWaitInterrupt = 0;

EFI_STATUS AddressWaitProgress(UINTN Ticks, UINTN Total) {
  if (Ticks == 0 || Ticks == gLastTick || Total == 0)
    return EFI_SUCCESS;
  UINTN percent = Ticks * 30 / Total + 30;
  gWaitInterrupt = 0;
  ProgressUpdate(percent, (99 - percent) * 60 / 98, &gWaitInterrupt);
  if (gWaitInterrupt != 0)
    return EFI_ABORTED;
  gLastTick = Ticks;
  return EFI_SUCCESS;
}

// One run's state; whatever way the run ends, the closing steps free what it holds.
struct Run {
  UINTN* Result;
  UINTN* ErrorCode;
  CHAR8 Language[6] = {};
  UINT64 Retries = 0;
  ORDERED_LIST* Nics = nullptr;
  NicInfo* Selected = nullptr;
  UINTN FailurePrompt = kPromptNotConfigured;

  // Sets the outcome; always FALSE, so that a step can end the run with "return End(...)".
  bool End(UINTN result, UINTN error) {
    *Result = result;
    *ErrorCode = error;
    return false;
  }
  // A progress report with the operator's answer; FALSE (outcome set) when the operator answered.
  bool Report(UINTN percent, UINTN seconds) {
    UINTN interrupt = 0;
    ProgressUpdate(percent, seconds, &interrupt);
    return !TakeInterrupt(interrupt, Result, ErrorCode);
  }
  ~Run() {
    if (Selected != nullptr && Selected->Ip4Config2InterfaceInfo != nullptr) {
      DebugLogPrint(u"Freeing pIp4Config2InterfaceInfo at End of Test \r\n");
      FreePool(Selected->Ip4Config2InterfaceInfo);
      Selected->Ip4Config2InterfaceInfo = nullptr;
    }
    if (Nics != nullptr)
      OrderedListDestroy(Nics);
  }

  // From the second attempt on: the retry line and a report within the 30 points after Base.
  bool StartAttempt(UINT64 attempt, UINTN base) {
    if (attempt == 0)
      return true;
    LogPrint(u"Retrying %d times...\r\n", attempt);
    UINTN percent = UINTN((attempt + 1) * 30 / (Retries + 1) + base);
    return Report(percent, (99 - percent) * 60 / 98);
  }

  bool ReadOptions();
  bool ChooseNic(const NicMenuProtocols& menus);
  bool WaitForCable();
  bool ConfigureByDhcp(EFI_IPv4_ADDRESS* remote);
  bool PingRemote(const EFI_IPv4_ADDRESS& remote);
};

bool Run::ReadOptions() {
  UINT64 lang = 0;
  if (EFI_ERROR(GetOptionValue(u"-Lang", &lang, nullptr)) ||
      EFI_ERROR(GetOptionValue(u"-retries", &Retries, nullptr)))
    return End(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE);
  // The low byte of each character, at most five.
  const auto* text = reinterpret_cast<const CHAR16*>(static_cast<UINTN>(lang));
  for (UINTN i = 0; text != nullptr && i < 5 && text[i] != 0; ++i)
    Language[i] = CHAR8(text[i]);
  return true;
}

bool Run::ChooseNic(const NicMenuProtocols& menus) {
  UINT64 count = 0;
  EFI_STATUS status = BuildNicInventory(Language, Nics, &count);
  if (status == EFI_NOT_FOUND || (!EFI_ERROR(status) && count == 0)) {
    PromptMessage(kPromptNoNic, kMessageFile);
    LogPrint(u"No NIC device is found!\r\n");
    return End(TEST_RESULT_FAILED, ERROR_CODE_NO_NIC);
  }
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed find NIC device!(%r)\r\n", status);
    return End(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE);
  }
  LogPrint(u"Found %d NIC Device(s).\r\n", count);
  if (!Report(10, 54))
    return false;
  if (count >= 2) {
    status = SelectNic(menus, Language, Nics, &Selected);
    if (status == EFI_ABORTED)
      return End(TEST_RESULT_CANCELLED, ERROR_CODE_OPERATOR_ABORT);
    if (EFI_ERROR(status))
      return End(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE);
  } else {
    Selected = static_cast<NicInfo*>(Nics->First->Element);
  }
  CHAR16 mac[32];
  FormatMacText(Selected->MacAddress, mac, sizeof(mac));
  LogPrint(u"Selected NIC Device: %s\r\n", mac);
  return Report(20, 48);
}

bool Run::WaitForCable() {
  LogPrint(u"Starting Detect Cable...\r\n");
  EFI_STATUS status = EFI_SUCCESS;
  for (UINTN pass = 0; pass < 2; ++pass) {
    if (pass == 1) {
      if (PromptMessage(kPromptNoCableYet, kMessageFile) == EFI_ABORTED)
        return End(TEST_RESULT_CANCELLED, ERROR_CODE_OPERATOR_ABORT);
      LogPrint(u"Retrying %d times...\r\n", 1);
      ProgressUpdate(25, 45, nullptr);
    }
    for (UINTN check = 0; check < kCableChecks; ++check) {
      gBS->Stall(kSecond);
      UINT8 present = 0;
      status = CheckNicMedia(Selected, &present);
      if (status == EFI_UNSUPPORTED) {
        FailurePrompt = kPromptNotConfiguredNoLink;
        present = 1;
      } else if (EFI_ERROR(status)) {
        LogPrint(u"Failed detect cable!(%r)\r\n", status);
        return End(TEST_RESULT_WARNING, ERROR_CODE_SOFTWARE);
      }
      if (present) {
        LogPrint(u"Network cable detected!\r\n");
        return Report(30, 42);
      }
    }
  }
  PromptMessage(kPromptNoCable, kMessageFile);
  LogPrint(u"Network cable not detected!(%r)\r\n", status);
  return End(TEST_RESULT_WARNING, kNoCable);
}

bool Run::ConfigureByDhcp(EFI_IPv4_ADDRESS* remote) {
  LogPrint(u"Network not configured correctly, starting configure with DHCP...\r\n");
  if (Selected->Dhcp4ServiceBindingProtocolHandle == nullptr) {
    LogPrint(u"DHCPv4 Service Binding Protocol not supported for current NIC device!\r\n");
    return End(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE);
  }
  EFI_STATUS status = SetNicConfig();
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed SetNicConfig().(%r)\r\n", status);
    return End(status == EFI_OUT_OF_RESOURCES ? TEST_RESULT_FAILED : TEST_RESULT_WARNING,
               ERROR_CODE_SOFTWARE);
  }
  // The NIC's own address first: it shows that the stack is configured at all.
  gLastTick = 0;
  gWaitInterrupt = 0;
  status = ExecutePingProcess(Selected->Ip4ServiceBindingProtocolHandle, EFI_IPv4_ADDRESS{}, 0,
                              AddressWaitProgress, PingVariant::Interactive);
  if (status == EFI_ABORTED && TakeInterrupt(gWaitInterrupt, Result, ErrorCode))
    return false;
  if (EFI_ERROR(status)) {
    PromptMessage(FailurePrompt, kMessageFile);
    LogPrint(u"Failed configure network!(%r)\r\n", status);
    return End(TEST_RESULT_FAILED, kNotConfigured);
  }
  UINT32 timeouts[1];
  EFI_DHCP4_CONFIG_DATA config = MakeDhcpConfig(timeouts);
  EFI_DHCP4_MODE_DATA mode = {};
  bool bound = false;
  for (UINT64 attempt = 0; attempt <= Retries && !bound; ++attempt) {
    if (!StartAttempt(attempt, 30))
      return false;
    Dhcp4Child dhcp;
    status = dhcp.Open(Selected->Dhcp4ServiceBindingProtocolHandle, gImageHandle);
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed open DHCPv4 Protocol!(%r)\r\n", status);
      return End(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE);
    }
    for (UINTN tryNumber = 0; tryNumber < kDhcpTries; ++tryNumber) {
      status = StartConfigureProcess(dhcp.Get(), &config, &mode);
      if (EFI_ERROR(status) && status != EFI_ACCESS_DENIED && status != EFI_TIMEOUT) {
        LogPrint(u"Failed configure network!(%r)\r\n", status);
        return End(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE);
      }
      if (!EFI_ERROR(status) && mode.State == Dhcp4Bound) {
        bound = true;
        break;
      }
      gBS->Stall(kSecond);
    }
  }
  if (!bound) {
    PromptMessage(FailurePrompt, kMessageFile);
    LogPrint(u"Network Configure not completed!\r\n");
    return End(TEST_RESULT_FAILED, kNotConfigured);
  }
  LogPrint(u"Configure Network completed!\r\n");
  *remote = mode.ServerAddress;
  return true;
}

bool Run::PingRemote(const EFI_IPv4_ADDRESS& remote) {
  LogPrint(u"Starting Ping Remote IP Address...\r\n");
  bool passed = false;
  for (UINT64 attempt = 0; attempt <= Retries && !passed; ++attempt) {
    if (!StartAttempt(attempt, 60))
      return false;
    EFI_STATUS status = ExecutePingProcess(Selected->Ip4ServiceBindingProtocolHandle, remote, 3, nullptr,
                                           PingVariant::Interactive);
    if (status == EFI_SUCCESS)
      passed = true;
    else if (EFI_ERROR(status) && status != EFI_TIMEOUT && status != EFI_NO_MAPPING) {
      LogPrint(u"Failed Ping Server!(%r)\r\n", status);
      return End(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE);
    }
  }
  if (!passed) {
    LogPrint(u"Ping DHCP Server not successed!\r\n");
    return End(TEST_RESULT_FAILED, kNoAnswer);
  }
  LogPrint(u"Ping DHCP Server successed!\r\n");
  ProgressUpdate(99, 0, nullptr);
  return End(TEST_RESULT_PASSED, ERROR_CODE_NONE);
}

} // namespace

extern const TestInfo kInteractiveNetworkTest = {
    u"interactivenetworktest",
    u"This test will verifies the network interface controller is working properly.",
    kOptions,
    InteractiveNetworkTest,
    60,
    kGroup};

EFI_STATUS InteractiveNetworkTest(UINTN* Result, UINTN* ErrorCode) {
  ProgressUpdate(1, 60, nullptr);
  Run run{Result, ErrorCode};
  if (!run.ReadOptions())
    return EFI_SUCCESS;
  NicMenuProtocols menus = {};
  if (EFI_ERROR(LocateMenuProtocols(&menus)) ||
      EFI_ERROR(OrderedListCreate(&run.Nics, nullptr, FreeNicInfo))) {
    run.End(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE);
    return EFI_SUCCESS;
  }
  DecideCurrentPlatform(PingVariant::Interactive);
  if (!run.Report(5, 57) || !run.ChooseNic(menus) || !run.WaitForCable())
    return EFI_SUCCESS;
  if (run.Selected->Ip4ServiceBindingProtocolHandle == nullptr) {
    LogPrint(u"IPv4 Service Binding Protocol not supported for current NIC device!\r\n");
    run.End(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE);
    return EFI_SUCCESS;
  }
  // The NIC's existing configuration first: its default gateway answers one ping when it works.
  EFI_STATUS status = GetNicConfig(run.Selected);
  EFI_IPv4_ADDRESS remote = {};
  if (!EFI_ERROR(status) && run.Selected->Ip4Config2InterfaceInfo != nullptr)
    remote = DefaultGateway(run.Selected->Ip4Config2InterfaceInfo);
  LogPrint(u"GetNicConfig(), Status(%r), ConfigInfo(%x)\r\n", status, run.Selected->Ip4Config2InterfaceInfo);
  bool configured = false;
  if ((remote.Addr[0] | remote.Addr[1] | remote.Addr[2] | remote.Addr[3]) != 0) {
    status = ExecutePingProcess(run.Selected->Ip4ServiceBindingProtocolHandle, remote, 1, nullptr,
                                PingVariant::Interactive);
    configured = !EFI_ERROR(status);
    if (!configured)
      LogPrint(u"Failed to try to ping gateway ip!(%r)\r\n", status);
  }
  if (configured)
    LogPrint(u"Network is configured correctly.\r\n");
  else if (!run.ConfigureByDhcp(&remote))
    return EFI_SUCCESS;
  LogPrint(u"Remote IP Address: %d.%d.%d.%d\r\n", remote.Addr[0], remote.Addr[1], remote.Addr[2],
           remote.Addr[3]);
  if (run.Report(60, 23))
    run.PingRemote(remote);
  return EFI_SUCCESS;
}
