// pingtest: bring a NIC's IPv4 stack up, learn the DHCP server by DHCPv4 and ping it.
#include "base/Globals.h"
#include "base/Owners.h"
#include "base/String.h"
#include "nic/NicAccess.h"
#include "tests/NicSteps.h"
#include "options/Declared.h"
#include "ping/BringUp.h"
#include "report/Output.h"
#include "report/TestRun.h"

EFI_STATUS PingTest(UINTN* Result, UINTN* ErrorCode);

namespace {

struct PingOptions {
  UINT16 retries;
  UINT16 testRepeats;
  UINT16 index;
  BOOLEAN indexGiven;
  const CHAR16* devicePath;
  BOOLEAN dhcpPing;
  BOOLEAN localPing;
  BOOLEAN devicePathGiven;
};

// Each option is traced as it is read; a ping of a kind the test does not make refuses the run with
// EFI_UNSUPPORTED.
constexpr auto kOptions =
    DeclareOptions<PingOptions>(
        OptionField<PingOptions>(
            {.Name = u"-retries",
             .Description = u"Number of allowed retries in case of test failure.",
             .Type = OPTION_TYPE_INTEGER,
             .Default = u"0",
             .Low = u"0",
             .High = u"5"},
            [](PingOptions& o, const OptionRead& v) { return StoreTraced(o.retries, v, u"Retries:%d\r\n"); }),
        OptionField<PingOptions>(
            {.Name = u"-testrepeats",
             .Description = u"The number of times to run the testing portion of the test, default is 1.",
             .Type = OPTION_TYPE_INTEGER,
             .Default = u"1",
             .Low = u"1",
             .High = u"50"},
            [](PingOptions& o, const OptionRead& v) {
              return StoreTraced(o.testRepeats, v, u"TestRepeats:%d\r\n");
            }),
        OptionField<PingOptions>(
            {.Name = u"-index",
             .Description = u"Index of network card to test, default is 1. This option is mutually exclusive "
                            u"from DevicePath option.",
             .Type = OPTION_TYPE_INTEGER,
             .Default = u"1",
             .Low = u"1",
             .High = u"128"},
            [](PingOptions& o, const OptionRead& v) {
              o.indexGiven = v.Given;
              return StoreTraced(o.index, v, u"Index:%d\r\n");
            }),
        OptionField<PingOptions>(
            {.Name = u"-devicepath",
             .Description = u"DevicePath of Network controller to be tested. This option is mutually "
                            u"exclusive from Index option.",
             .Type = OPTION_TYPE_STRING},
            [](PingOptions& o, const OptionRead& v) {
              o.devicePathGiven = v.Given;
              return StoreTraced(o.devicePath, v, u"DevicePath:%s\r\n");
            }),
        OptionField<PingOptions>({.Name = u"-dhcpping",
                                  .Description = u"Check if pinging the DHCP server. Default is true.",
                                  .Type = OPTION_TYPE_BOOLEAN,
                                  .Default = u"true"},
                                 [](PingOptions& o, const OptionRead& v) {
                                   Store(o.dhcpPing, v);
                                   if (!o.dhcpPing) {
                                     LogPrint(u"NON-DHCP ping is unsupported now.\r\n");
                                     return EFI_UNSUPPORTED;
                                   }
                                   TracePrint(u"DHCPPing:%s\r\n", u"true");
                                   return EFI_SUCCESS;
                                 }),
        OptionField<PingOptions>({.Name = u"-localping",
                                  .Description = u"Check if pinging the Local interface. Default is false.",
                                  .Type = OPTION_TYPE_BOOLEAN,
                                  .Default = u"false"},
                                 [](PingOptions& o, const OptionRead& v) {
                                   Store(o.localPing, v);
                                   if (o.localPing) {
                                     LogPrint(u"Local ping is unsupported now.\r\n");
                                     return EFI_UNSUPPORTED;
                                   }
                                   TracePrint(u"LocalPing:%s\r\n", u"false");
                                   return EFI_SUCCESS;
                                 }))
        // Read as the test has always read them: the NIC's position before the repeats, the path last.
        .ReadInOrder({0, 2, 1, 4, 5, 3});

constexpr UINTN kGroup = TestErrorGroup(0);
constexpr UINTN kConfigFailed = kGroup + 0x01;
constexpr UINTN kPingTimedOut = kGroup + 0x02;
constexpr UINTN kPingKindUnsupported = kGroup + 0x05; // -dhcpping false or -localping true
constexpr UINTN kDhcpRefused = kGroup + 0x06;
constexpr UINTN kNoCable = kGroup + 0x07;
static_assert(ERROR_CODE_NO_NIC == kGroup + 0x03 && ERROR_CODE_NIC_NOT_FOUND == kGroup + 0x04);
constexpr ErrorMeaning kErrors[] = {
    {kConfigFailed, u"the first IPv4 configuration failed, or DHCP timed out"},
    {kPingTimedOut, u"the ping timed out"},
    {kPingKindUnsupported, u"an unsupported ping kind was asked for"},
    {kDhcpRefused,
     u"DHCP was refused (another DHCP client active), or there was no IPv4 address for the ping"},
    {kNoCable, u"no cable"},
    {},
};

// The first progress position of every run: each run reports its own progress from the start.
constexpr ProgressPoint kStart = ProgressAt(1, 30);
constexpr ProgressPoint kDone = ProgressAt(99, 30);

constexpr const CHAR16* kNoHandles[] = {
    u"No NIC is found!\r\n",
    u"EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL not found.\r\n",
    u"EFI_IP4_SERVICE_BINDING_PROTOCOL not found.\r\n",
    u"EFI_DCHP4_SERVICE_BINDING_PROTOCOL not found.\r\n",
    nullptr,
};
constexpr const CHAR16* kLookupFailed[] = {
    u"Failed Locating EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL!(%r)\r\n",
    u"Failed Locating EFI_IP4_SERVICE_BINDING_PROTOCOL!(%r)\r\n",
    u"Failed Locating EFI_DCHP4_SERVICE_BINDING_PROTOCOL!(%r)\r\n",
    nullptr,
};
constexpr NicChoiceTexts kChoiceTexts = {
    .NoHandles = kNoHandles,
    .LookupFailed = kLookupFailed,
    .Found = u"EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL: 0x%x\r\n",
    .NotThere = u"The NIC is not found!\r\n",
};

// The last DHCP exchange's addresses, kept for the module's lifetime.
constinit EFI_IPv4_ADDRESS gServerAddress = {};
constinit EFI_IPv4_ADDRESS gClientAddress = {};

// This test's echo replies and identifier, apart from the interactive test's.
constinit EchoCounter gEchoes = {0, 0};

// What the bring-up does for this test: the stored configuration rewritten through HII, one
// 60-second wait for the address, and DHCP on one child held through the ping, a refusal while
// another DHCP client is active asked again up to 100 times 0.2 s apart, a time-out once after
// 0.1 s and a progress step, the first success taken whatever its state.
constexpr DhcpTries kDhcpTries = {
    .Attempts = 1,
    .TriesPerChild = 1,
    .TryPause = 0,
    .RefusalRepeats = 100,
    .RefusalPause = 200000,
    .TimeoutRepeats = 1,
    .TimeoutPause = 100000,
    .RequireBound = false,
};

// How an attempt ended, apart from its verdict: only a missing NIC ends the retries.
enum class AttemptEnd { Judged, NicMissing, Interrupted };

class PingRun : public TestRun {
public:
  void Execute();

private:
  bool ReadOptions();
  // One progress step of the run's own scale; FALSE when the operator answered.
  bool Step();
  // One attempt; its verdict is in attempt_.
  AttemptEnd RunPingTest();
  AttemptEnd Fails(UINTN ErrorCode, AttemptEnd How = AttemptEnd::Judged) {
    attempt_.ErrorCode = ErrorCode;
    return How;
  }
  // The NIC's address and its DHCP server; FALSE when the attempt ends there.
  bool BringUp(EFI_HANDLE Nic, Ipv4BringUp& Up);
  // The NIC to ping, by -devicepath text or -index position among the handles.
  EFI_HANDLE ChoosePingTarget();

  PingOptions o_ = {};
  FirmwareTraits firmware_ = kAssumedFirmware;
  ProgressPoint position_ = kStart;
  bool interrupted_ = false;
  struct {
    UINTN Result;
    UINTN ErrorCode;
  } attempt_ = {TEST_RESULT_FAILED, ERROR_CODE_NONE};
  wc::HandleBuffer handles_;
};

// A step adds 100 / steps percent and takes 30 / steps seconds off, with
// steps = (retries + 1) x 3 + 2.
bool PingRun::Step() {
  position_ = ProgressStep(position_, (UINTN(o_.retries) + 1) * 3 + 2, 30);
  interrupted_ = !Report(position_);
  return !interrupted_;
}

bool PingRun::ReadOptions() {
  bool refused = false;
  if (EFI_ERROR(kOptions.Reader().Read(o_, &refused)))
    return End(Outcome::Failed(refused ? kPingKindUnsupported : ERROR_CODE_SOFTWARE));
  if (o_.indexGiven && o_.devicePathGiven)
    return End(Outcome::Failed(ERROR_CODE_INVALID_OPTIONS));
  return true;
}

void PingRun::Execute() {
  TracePrint(u"enter PingTest()\r\n");
  if (!Report(position_) || !ReadOptions())
    return;
  firmware_ = ReadFirmwareTraits();
  if (!Step())
    return;
  for (UINT8 attempt = 0; attempt <= o_.retries; ++attempt) {
    if (attempt > 0)
      ConsolePrint(u"Retry......\r\n");
    if (!Step())
      return;
    AttemptEnd end = RunPingTest();
    if (end == AttemptEnd::Interrupted)
      return; // cancelled or failed by the operator
    if (end == AttemptEnd::NicMissing) {
      LogPrint(u"RunPingTest() error!\r\n");
      End(Outcome::Ended(attempt_.Result, attempt_.ErrorCode));
      return;
    }
    if (attempt_.Result == TEST_RESULT_PASSED)
      break;
  }
  Show(kDone);
  End(Outcome::Ended(attempt_.Result, attempt_.ErrorCode));
}

AttemptEnd PingRun::RunPingTest() {
  TracePrint(u"enter RunPingTest()\r\n");
  attempt_ = {TEST_RESULT_FAILED, ERROR_CODE_NONE};

  // The cable check, the first IPv4 configuration and DHCP run on the NIC at -index.
  EFI_HANDLE nic = nullptr;
  EFI_STATUS status = EFI_SUCCESS;
  switch (ChooseNicSaying(kChoiceTexts, 0, o_.index, handles_, &nic, &status)) {
  case NicChoice::Chosen:
    break;
  case NicChoice::NoNic:
    return Fails(ERROR_CODE_NO_NIC, AttemptEnd::NicMissing);
  case NicChoice::NotThere:
    return Fails(ERROR_CODE_NIC_NOT_FOUND, AttemptEnd::NicMissing);
  case NicChoice::LookupFailed:
    return Fails(ERROR_CODE_SOFTWARE);
  }

  if (!WaitForCableAtPrompt(nic)) {
    LogPrint(u"Media cable not detected!\r\n");
    return Fails(kNoCable);
  }
  if (!Step())
    return AttemptEnd::Interrupted;

  // The DHCPv4 child the bring-up holds stays until the attempt ends, ping included.
  const BringUpPolicy policy = {
      .Rewrite = ConfigRewrite::StoredThroughHii,
      .Echo = {&gEchoes, true, AddressWait::OneTimer, &firmware_},
      .Dhcp = kDhcpTries,
      .HoldChild = true,
  };
  const BringUpHooks hooks = {this, nullptr,
                              [](void* run, UINTN, bool) { return static_cast<PingRun*>(run)->Step(); }};
  Ipv4BringUp up(policy, hooks);
  if (!BringUp(nic, up))
    return interrupted_ ? AttemptEnd::Interrupted : AttemptEnd::Judged;

  EFI_HANDLE target = ChoosePingTarget();
  if (target == nullptr) {
    LogPrint(u"The network card you searched is not found!\r\n");
    return Fails(ERROR_CODE_NIC_NOT_FOUND, AttemptEnd::NicMissing);
  }
  status = ExecutePingProcess(target, gServerAddress, o_.testRepeats, nullptr, policy.Echo);
  if (status != EFI_SUCCESS) {
    LogPrint(u"ExecutePingProcess() error (%r)\r\n", status);
    return Fails(ErrorCodeFor(status, {{EFI_TIMEOUT, kPingTimedOut}, {EFI_NO_MAPPING, kDhcpRefused}}));
  }
  attempt_.Result = TEST_RESULT_PASSED;
  return AttemptEnd::Judged;
}

bool PingRun::BringUp(EFI_HANDLE Nic, Ipv4BringUp& Up) {
  BringUpResult up = Up.Run({.Ip4 = Nic, .Dhcp4 = Nic, .Config2 = Nic});
  switch (up.Reason) {
  case BringUpReason::Up:
    break;
  case BringUpReason::OperatorAnswered:
    return false;
  case BringUpReason::RewriteFailed:
    LogPrint(u"Failed SetNicByHii (%r)\r\n", up.Status);
    Fails(ERROR_CODE_SOFTWARE);
    return false;
  case BringUpReason::NoAddress:
    LogPrint(u"ExecutePingProcess (%r)\r\n", up.Status);
    Fails(kConfigFailed);
    return false;
  case BringUpReason::DhcpChildFailed:
    LogPrint(u"OpenDhcp4Protocol() error (%r)\r\n", up.Status);
    Fails(ERROR_CODE_SOFTWARE);
    return false;
  case BringUpReason::DhcpTimedOut:
  case BringUpReason::DhcpRefused:
  case BringUpReason::DhcpNotBound:
  case BringUpReason::DhcpFailed:
    LogPrint(u"StartConfigureProcess() error (%r)\r\n", up.Status);
    Fails(up.Reason == BringUpReason::DhcpTimedOut  ? kConfigFailed
          : up.Reason == BringUpReason::DhcpRefused ? kDhcpRefused
                                                    : ERROR_CODE_SOFTWARE);
    return false;
  }
  attempt_.ErrorCode = ERROR_CODE_NONE;
  gServerAddress = Up.Lease().ServerAddress;
  gClientAddress = Up.Lease().ClientAddress;
  const UINT8* s = gServerAddress.Addr;
  const UINT8* c = gClientAddress.Addr;
  LogPrint(u"Server Address: %d.%d.%d.%d\r\n", s[0], s[1], s[2], s[3]);
  LogPrint(u"Client Address: %d.%d.%d.%d\r\n", c[0], c[1], c[2], c[3]);
  return true;
}

// A handle whose device path cannot be opened is passed over, and its failure stays in the
// attempt's error code even when a later handle is pinged successfully.
EFI_HANDLE PingRun::ChoosePingTarget() {
  UINTN seen = 0;
  for (UINTN i = 0; i < handles_.Count(); ++i) {
    wc::PoolPtr<CHAR16> text;
    EFI_STATUS status = DevicePathTextOf(handles_[i], text);
    if (EFI_ERROR(status)) {
      LogPrint(u"Failed Open Device Path Protocol (%r)\r\n", status);
      attempt_.ErrorCode = ERROR_CODE_SOFTWARE;
      continue;
    }
    LogPrint(u"the NIC device path:%s\r\n", text.Get());
    ++seen;
    if (o_.devicePathGiven ? (text && StrFind(text.Get(), o_.devicePath) != nullptr) : seen == o_.index)
      return handles_[i];
  }
  return nullptr;
}

} // namespace

extern const TestInfo kPingTest = {
    .Name = u"pingtest",
    .Description = u"This test verifies the ability to transmit/receive data over network.",
    .Options = kOptions.Rows,
    .Procedure = PingTest,
    .RunTime = 10,
    .ErrorGroup = kGroup,
    .Errors = kErrors,
};

EFI_STATUS PingTest(UINTN* Result, UINTN* ErrorCode) {
  return RunTest<PingRun>(Result, ErrorCode);
}
