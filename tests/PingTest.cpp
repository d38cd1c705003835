// pingtest: bring a NIC's IPv4 stack up, learn the DHCP server by DHCPv4 and ping it.
#include "base/Globals.h"
#include "base/Owners.h"
#include "base/String.h"
#include "nic/HiiConfig.h"
#include "nic/NicAccess.h"
#include "nic/ServiceChildren.h"
#include "options/OptionStore.h"
#include "ping/Dhcp.h"
#include "ping/IcmpEcho.h"
#include "report/Output.h"
#include "report/Progress.h"
#include "report/Results.h"

EFI_STATUS PingTest(UINTN* Result, UINTN* ErrorCode);

namespace {

constexpr OptionInfo kOptions[] = {
    {u"-retries", u"Number of allowed retries in case of test failure.", OPTION_TYPE_INTEGER, u"0", u"0",
     u"5", nullptr, FALSE},
    {u"-testrepeats", u"The number of times to run the testing portion of the test, default is 1.",
     OPTION_TYPE_INTEGER, u"1", u"1", u"50", nullptr, FALSE},
    {u"-index",
     u"Index of network card to test, default is 1. This option is mutually exclusive from DevicePath "
     u"option.",
     OPTION_TYPE_INTEGER, u"1", u"1", u"128", nullptr, FALSE},
    {u"-devicepath",
     u"DevicePath of Network controller to be tested. This option is mutually exclusive from Index option.",
     OPTION_TYPE_STRING, nullptr, nullptr, nullptr, nullptr, FALSE},
    {u"-dhcpping", u"Check if pinging the DHCP server. Default is true.", OPTION_TYPE_BOOLEAN, u"true",
     nullptr, nullptr, nullptr, FALSE},
    {u"-localping", u"Check if pinging the Local interface. Default is false.", OPTION_TYPE_BOOLEAN, u"false",
     nullptr, nullptr, nullptr, FALSE},
    {},
};

constexpr UINTN kGroup = TestErrorGroup(0);
constexpr UINTN kConfigFailed = kGroup + 0x01;        // first IPv4 configuration failed, or DHCP timed out
constexpr UINTN kPingTimedOut = kGroup + 0x02;        // the ping timed out
constexpr UINTN kPingKindUnsupported = kGroup + 0x05; // -dhcpping false or -localping true
constexpr UINTN kDhcpRefused = kGroup + 0x06; // another DHCP client active, or no address to ping from
constexpr UINTN kNoCable = kGroup + 0x07;
static_assert(ERROR_CODE_NO_NIC == kGroup + 0x03 && ERROR_CODE_NIC_NOT_FOUND == kGroup + 0x04);

struct PingOptions {
  UINT64 result;
  UINT64 errorCode;
  UINT16 retries;
  UINT16 testRepeats;
  UINT16 index;
  BOOLEAN indexGiven;
  const CHAR16* devicePath;
  BOOLEAN dhcpPing;
  BOOLEAN localPing;
  BOOLEAN devicePathGiven;
};

// State that outlives a run: the last DHCP exchange's addresses and the progress position.
constinit EFI_IPv4_ADDRESS gServerAddress = {};
constinit EFI_IPv4_ADDRESS gClientAddress = {};
constinit UINTN gPercent = 1;
constinit UINT16 gSecondsLeft = 30;
constinit UINTN gInterrupt = 0;

// One progress step; FALSE when the operator interrupted (result and error code are then set).
bool ProgressStep(PingOptions& o) {
  UINTN steps = (UINTN(o.retries) + 1) * 3 + 2;
  gPercent += 100 / steps;
  UINT16 less = UINT16(30 / steps);
  gSecondsLeft = gSecondsLeft > less ? UINT16(gSecondsLeft - less) : 0;
  gInterrupt = 0;
  ProgressUpdate(gPercent, gSecondsLeft, &gInterrupt);
  return !TakeInterrupt(gInterrupt, &o.result, &o.errorCode);
}

EFI_STATUS ReadPingOptions(PingOptions& o) {
  UINT64 value = 0;
  BOOLEAN flag = FALSE;
  auto fail = [](const CHAR16* name, EFI_STATUS status) {
    LogPrint(u"Failed to get value of option %s - %r\r\n", name, status);
    return status;
  };
  EFI_STATUS status = GetOptionValue(u"-retries", &value, nullptr);
  if (EFI_ERROR(status))
    return fail(u"-retries", status);
  o.retries = UINT16(value);
  TracePrint(u"Retries:%d\r\n", o.retries);
  status = GetOptionValue(u"-index", &value, &o.indexGiven);
  if (EFI_ERROR(status))
    return fail(u"-index", status);
  o.index = UINT16(value);
  TracePrint(u"Index:%d\r\n", o.index);
  status = GetOptionValue(u"-testrepeats", &value, nullptr);
  if (EFI_ERROR(status))
    return fail(u"-testrepeats", status);
  o.testRepeats = UINT16(value);
  TracePrint(u"TestRepeats:%d\r\n", o.testRepeats);
  status = GetOptionBoolean(u"-dhcpping", &flag, nullptr);
  if (EFI_ERROR(status))
    return fail(u"-dhcpping", status);
  o.dhcpPing = flag;
  if (!flag) {
    LogPrint(u"NON-DHCP ping is unsupported now.\r\n");
    return EFI_UNSUPPORTED;
  }
  TracePrint(u"DHCPPing:%s\r\n", u"true");
  status = GetOptionBoolean(u"-localping", &flag, nullptr);
  if (EFI_ERROR(status))
    return fail(u"-localping", status);
  o.localPing = flag;
  if (flag) {
    LogPrint(u"Local ping is unsupported now.\r\n");
    return EFI_UNSUPPORTED;
  }
  TracePrint(u"LocalPing:%s\r\n", u"false");
  status = GetOptionValue(u"-devicepath", &value, &o.devicePathGiven);
  if (EFI_ERROR(status))
    return fail(u"-devicepath", status);
  o.devicePath = reinterpret_cast<const CHAR16*>(static_cast<UINTN>(value));
  TracePrint(u"DevicePath:%s\r\n", o.devicePath);
  return EFI_SUCCESS;
}

EFI_STATUS RunPingTest(PingOptions& o) {
  TracePrint(u"enter RunPingTest()\r\n");
  o.result = TEST_RESULT_FAILED;
  o.errorCode = ERROR_CODE_NONE;

  wc::HandleBuffer handles;
  EFI_STATUS status = handles.Locate(EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID);
  if (status == EFI_NOT_FOUND) {
    LogPrint(u"No NIC is found!\r\n");
    LogPrint(u"EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL not found.\r\n");
    LogPrint(u"EFI_IP4_SERVICE_BINDING_PROTOCOL not found.\r\n");
    LogPrint(u"EFI_DCHP4_SERVICE_BINDING_PROTOCOL not found.\r\n");
    o.errorCode = ERROR_CODE_NO_NIC;
    return EFI_NOT_FOUND;
  }
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed Locating EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL!(%r)\r\n", status);
    LogPrint(u"Failed Locating EFI_IP4_SERVICE_BINDING_PROTOCOL!(%r)\r\n", status);
    LogPrint(u"Failed Locating EFI_DCHP4_SERVICE_BINDING_PROTOCOL!(%r)\r\n", status);
    o.errorCode = ERROR_CODE_SOFTWARE;
    return status;
  }
  LogPrint(u"EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL: 0x%x\r\n", handles.Count());
  EFI_HANDLE nic = handles.At(o.index);
  if (nic == nullptr) {
    LogPrint(u"The NIC is not found!\r\n");
    o.errorCode = ERROR_CODE_NIC_NOT_FOUND;
    return EFI_NOT_FOUND;
  }

  if (!WaitForCable(nic)) {
    LogPrint(u"Media cable not detected!\r\n");
    o.errorCode = kNoCable;
    return EFI_SUCCESS;
  }
  if (!ProgressStep(o))
    return EFI_SUCCESS;

  status = SetNicByHii();
  if (EFI_ERROR(status) && status != EFI_ALREADY_STARTED) {
    LogPrint(u"Failed SetNicByHii (%r)\r\n", status);
    o.errorCode = ERROR_CODE_SOFTWARE;
    return status;
  }

  status = ExecutePingProcess(nic, gServerAddress, 0, nullptr, PingVariant::PingTest);
  if (EFI_ERROR(status)) {
    LogPrint(u"ExecutePingProcess (%r)\r\n", status);
    o.errorCode = kConfigFailed;
    return status;
  }

  Dhcp4Child dhcp;
  status = dhcp.Open(nic, gImageHandle);
  if (EFI_ERROR(status)) {
    LogPrint(u"OpenDhcp4Protocol() error (%r)\r\n", status);
    o.errorCode = ERROR_CODE_SOFTWARE;
    return status;
  }
  UINT32 timeouts[1];
  EFI_DHCP4_CONFIG_DATA config = MakeDhcpConfig(timeouts);
  EFI_DHCP4_MODE_DATA mode = {};
  bool interrupted = false;
  status = ConfigureWithPingRetries(
      dhcp.Get(), &config, &mode,
      [](void* context) { return ProgressStep(*static_cast<PingOptions*>(context)); }, &o, &interrupted);
  if (interrupted)
    return EFI_SUCCESS;
  if (EFI_ERROR(status)) {
    LogPrint(u"StartConfigureProcess() error (%r)\r\n", status);
    o.errorCode = ErrorCodeFor(status, {{EFI_TIMEOUT, kConfigFailed}, {EFI_ACCESS_DENIED, kDhcpRefused}});
    return status;
  }

  o.errorCode = ERROR_CODE_NONE;
  gServerAddress = mode.ServerAddress;
  gClientAddress = mode.ClientAddress;
  const UINT8* s = gServerAddress.Addr;
  const UINT8* c = gClientAddress.Addr;
  LogPrint(u"Server Address: %d.%d.%d.%d\r\n", s[0], s[1], s[2], s[3]);
  LogPrint(u"Client Address: %d.%d.%d.%d\r\n", c[0], c[1], c[2], c[3]);

  EFI_HANDLE chosen = nullptr;
  UINTN seen = 0;
  for (UINTN i = 0; i < handles.Count() && chosen == nullptr; ++i) {
    wc::PoolPtr<CHAR16> text;
    status = DevicePathTextOf(handles[i], text);
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed Open Device Path Protocol (%r)\r\n", status);
      o.errorCode = ERROR_CODE_SOFTWARE;
      continue;
    }
    LogPrint(u"the NIC device path:%s\r\n", text.Get());
    ++seen;
    if (o.devicePathGiven ? (text && StrFind(text.Get(), o.devicePath) != nullptr) : seen == o.index)
      chosen = handles[i];
  }

  if (chosen == nullptr) {
    LogPrint(u"The network card you searched is not found!\r\n");
    o.errorCode = ERROR_CODE_NIC_NOT_FOUND;
    return EFI_NOT_FOUND;
  }
  status = ExecutePingProcess(chosen, gServerAddress, o.testRepeats, nullptr, PingVariant::PingTest);
  if (status != EFI_SUCCESS) {
    LogPrint(u"ExecutePingProcess() error (%r)\r\n", status);
    o.errorCode = ErrorCodeFor(status, {{EFI_TIMEOUT, kPingTimedOut}, {EFI_NO_MAPPING, kDhcpRefused}});
    return status;
  }
  o.result = TEST_RESULT_PASSED;
  return EFI_SUCCESS;
}

} // namespace

extern const TestInfo kPingTest = {
    u"pingtest", u"This test verifies the ability to transmit/receive data over network.",
    kOptions,    PingTest,
    10,          kGroup};

EFI_STATUS PingTest(UINTN* Result, UINTN* ErrorCode) {
  TracePrint(u"enter PingTest()\r\n");
  // Each run reports its own progress from the start.
  gPercent = 1;
  gSecondsLeft = 30;
  PingOptions o = {};
  auto finish = [&](UINT64 result, UINT64 error) {
    *Result = result;
    *ErrorCode = error;
    return EFI_SUCCESS;
  };
  gInterrupt = 0;
  ProgressUpdate(gPercent, gSecondsLeft, &gInterrupt);
  if (TakeInterrupt(gInterrupt, Result, ErrorCode))
    return EFI_SUCCESS;

  EFI_STATUS status = ReadPingOptions(o);
  if (status == EFI_UNSUPPORTED)
    return finish(TEST_RESULT_FAILED, kPingKindUnsupported);
  if (EFI_ERROR(status))
    return finish(TEST_RESULT_FAILED, ERROR_CODE_SOFTWARE);
  if (o.indexGiven && o.devicePathGiven)
    return finish(TEST_RESULT_FAILED, ERROR_CODE_INVALID_OPTIONS);

  DecideCurrentPlatform(PingVariant::PingTest);

  if (!ProgressStep(o))
    return finish(o.result, o.errorCode);
  for (UINT8 attempt = 0; attempt <= o.retries; ++attempt) {
    if (attempt > 0)
      ConsolePrint(u"Retry......\r\n");
    if (!ProgressStep(o))
      return finish(o.result, o.errorCode);
    status = RunPingTest(o);
    if (status == EFI_NOT_FOUND) {
      LogPrint(u"RunPingTest() error!\r\n");
      return finish(o.result, o.errorCode);
    }
    if (o.result == TEST_RESULT_PASSED) {
      ProgressUpdate(99, 0, nullptr);
      return finish(o.result, o.errorCode);
    }
    if (gInterrupt != 0)
      return finish(o.result, o.errorCode); // cancelled or failed by the operator
  }
  ProgressUpdate(99, 0, nullptr);
  return finish(o.result, o.errorCode);
}
