// ping6test: the chosen NIC's IPv6 stack has its link-local address and the addresses its router
// asked for (SLAAC, DHCPv6), and a target answers ICMPv6 echo through it.
#include "base/Globals.h"
#include "base/Ipv6Text.h"
#include "base/String.h"
#include "options/Declared.h"
#include "ping/Echo6.h"
#include "report/Attempts.h"
#include "report/Output.h"
#include "report/TestRun.h"
#include "tests/ChoiceOptions.h"
#include "tests/Ipv6Wait.h"
#include "tests/NicSteps.h"

EFI_STATUS Ping6Test(UINTN* Result, UINTN* ErrorCode);

namespace {

struct Ping6Options : NicChoiceOptions {
  UINT64 TestRepeats = 4;
  const CHAR16* Target = nullptr;
};

constexpr auto kOptions = DeclareOptions<Ping6Options>(
    kChoiceRetries<Ping6Options>,
    OptionField<Ping6Options>({.Name = u"-testrepeats",
                               .Description = u"The number of echo requests, one a second.",
                               .Type = OPTION_TYPE_INTEGER,
                               .Default = u"4",
                               .Low = u"1",
                               .High = u"50"},
                              [](Ping6Options& o, const OptionRead& v) { return Store(o.TestRepeats, v); }),
    kChoiceIndex<Ping6Options>, kChoiceDevicePath<Ping6Options>,
    OptionField<Ping6Options>({.Name = u"-target",
                               .Description = u"IPv6 address to ping; default is the router that advertised "
                                              u"itself.",
                               .Type = OPTION_TYPE_STRING},
                              [](Ping6Options& o, const OptionRead& v) { return Store(o.Target, v); }));

constexpr UINTN kGroup = TestErrorGroup(7);
constexpr UINTN kNoIpv6Stack = kGroup + 0x01;
constexpr UINTN kNoSuchNic = kGroup + 0x02;
constexpr UINTN kNoLink = kGroup + 0x03;
constexpr UINTN kNoRouter = kGroup + 0x04;
constexpr UINTN kDhcp6Unanswered = kGroup + 0x05;
constexpr UINTN kDuplicate = kGroup + 0x06;
constexpr UINTN kEchoMissing = kGroup + 0x07;
constexpr ErrorMeaning kErrors[] = {
    {kNoIpv6Stack, u"the NIC has no working IPv6 stack (no IPv6 service, or no link-local address)"},
    {kNoSuchNic, u"no NIC at that index or device path"},
    {kNoLink, u"no link"},
    {kNoRouter, u"no router advertisement from a default router"},
    {kDhcp6Unanswered, u"the router asked for DHCPv6 and no DHCPv6 server gave an address"},
    {kDuplicate, u"another node holds an address of the NIC (duplicate address detected)"},
    {kEchoMissing, u"echo replies missing"},
    {},
};

// Each run's echo identifier differs from the last one's, so that a late reply of an earlier run
// cannot count.
constinit UINT16 gIdentifier = 0x6C00;

class Ping6Run : public TestRun {
public:
  void Execute();

private:
  bool ReadOptions();
  // One attempt; FALSE when the run ends there (a missing NIC, the operator, the module's failure).
  bool Attempt(Attempts& Attempts);
  bool ChooseNic(EFI_HANDLE* Nic);
  bool HasIpv6(EFI_HANDLE Nic);
  UINTN VerdictCode(Ipv6Readiness Readiness, const NeighborClaim& Claim);
  bool Ping(EFI_HANDLE Nic, const Ipv6Picture& Picture);

  Ping6Options o_;
  EFI_IPv6_ADDRESS target_ = {};
  UINTN failCode_ = kEchoMissing;
};

bool Ping6Run::ReadOptions() {
  if (EFI_ERROR(kOptions.Reader().Read(o_)))
    return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
  if (o_.IndexGiven && o_.DevicePathGiven)
    return End(Outcome::Failed(ERROR_CODE_INVALID_OPTIONS));
  const CHAR16* target = o_.Target;
  if (target != nullptr && target[0] != 0 && !ParseIpv6Address(target, &target_)) {
    ErrorPrint(u"Not an IPv6 address: %s\r\n", target);
    return End(Outcome::Failed(ERROR_CODE_INVALID_OPTIONS));
  }
  return true;
}

bool Ping6Run::ChooseNic(EFI_HANDLE* Nic) {
  UINTN code = ChooseNicByIndexOrPath(o_, kNoIpv6Stack, kNoSuchNic, Nic);
  return code == ERROR_CODE_NONE || End(Outcome::Failed(code));
}

bool Ping6Run::HasIpv6(EFI_HANDLE Nic) {
  return NicHasIpv6(Nic) || End(Outcome::Failed(kNoIpv6Stack));
}

UINTN Ping6Run::VerdictCode(Ipv6Readiness Readiness, const NeighborClaim& Claim) {
  SayIpv6Readiness(Readiness, Claim);
  switch (Readiness) {
  case Ipv6Readiness::Duplicate:
    return kDuplicate;
  case Ipv6Readiness::NoLinkLocal:
  case Ipv6Readiness::SlaacMissing:
    return kNoIpv6Stack;
  case Ipv6Readiness::NoRouter:
  case Ipv6Readiness::NotDefaultRouter:
    return kNoRouter;
  case Ipv6Readiness::Dhcp6Unanswered:
    return kDhcp6Unanswered;
  case Ipv6Readiness::Waiting:
  case Ipv6Readiness::Ready:
    break;
  }
  return ERROR_CODE_SOFTWARE;
}

bool Ping6Run::Ping(EFI_HANDLE Nic, const Ipv6Picture& Picture) {
  EFI_IPv6_ADDRESS target = target_;
  if (IsUnspecifiedIpv6(target)) {
    target = Picture.State.HasRouter ? Picture.State.Router : Picture.Seen.Router;
  }
  // The source: the link-local address for a link-local target, a global one otherwise when there is one.
  EFI_IPv6_ADDRESS source = {};
  UINTN n = KeptAddressCount(Picture.State);
  for (UINTN i = 0; i < n; ++i) {
    const EFI_IPv6_ADDRESS& a = Picture.State.Addresses[i].Address;
    if (IsLinkLocalIpv6(a) == IsLinkLocalIpv6(target) || IsUnspecifiedIpv6(source))
      source = a;
    if (IsLinkLocalIpv6(a) == IsLinkLocalIpv6(target))
      break;
  }
  CHAR16 to[kIpv6TextChars], from[kIpv6TextChars];
  FormatIpv6Address(target, to, sizeof(to));
  FormatIpv6Address(source, from, sizeof(from));
  LogPrint(u"Pinging %s from %s, %d request(s)\r\n", to, from, o_.TestRepeats);
  Echo6Run run = {};
  run.Identifier = gIdentifier++;
  EFI_STATUS status = ExecutePing6Process(Nic, source, target, UINT32(o_.TestRepeats), &run);
  UINT64 least = ~0ull, most = 0, total = 0;
  for (UINTN i = 0; i < kMaxEcho6Requests; ++i) {
    if ((run.Answered >> i) & 1) {
      least = run.RoundTripUs[i] < least ? run.RoundTripUs[i] : least;
      most = run.RoundTripUs[i] > most ? run.RoundTripUs[i] : most;
      total += run.RoundTripUs[i];
    }
  }
  LogPrint(u"%d of %d echo request(s) answered by %s", run.Replies, run.Sent, to);
  if (run.Replies != 0)
    LogPrint(u", round trip min/avg/max %d/%d/%d us", least, total / run.Replies, most);
  LogPrint(u"; %d duplicate and %d other repl(ies) not counted\r\n", run.Duplicates, run.Strays);
  if (status == EFI_SUCCESS)
    return true;
  if (status == EFI_OUT_OF_RESOURCES) {
    failCode_ = ERROR_CODE_SOFTWARE;
    return false;
  }
  if (status != EFI_TIMEOUT)
    LogPrint(u"The echo exchange ended early (%r)\r\n", status);
  failCode_ = kEchoMissing;
  return false;
}

bool Ping6Run::Attempt(Attempts& Attempts) {
  if (!Attempts.Begin())
    return false;
  EFI_HANDLE nic = nullptr;
  if (!ChooseNic(&nic) || !HasIpv6(nic))
    return false;
  if (!WaitForCableAtPrompt(nic)) {
    LogPrint(u"Media cable not detected!\r\n");
    failCode_ = kNoLink;
    return true;
  }
  if (!Attempts.Advance(Attempts.Share() / 4))
    return false;
  EFI_MAC_ADDRESS mac = {}, permanent = {};
  if (EFI_ERROR(ReadMacAddresses(gImageHandle, nic, &mac, &permanent)))
    return End(Outcome::Failed(ERROR_CODE_SOFTWARE));
  Ipv6WaitPoints points = {&Attempts, Attempts.Share() / 2}; // up to half the attempt's share
  Ipv6WaitProgress progress = points.Progress();
  // Held to the end of the attempt: the NIC goes back to the policy it had.
  Ip6AutomaticPolicy automatic;
  bool switched = false;
  EFI_STATUS status = automatic.Apply(nic, &switched);
  if (switched)
    LogPrint(
        u"The NIC's IPv6 policy is manual without an address: the test sets it to automatic, so that the "
        u"firmware configures itself from the router, and back to manual at its end.\r\n");
  else if (status == EFI_ALREADY_STARTED)
    LogPrint(
        u"The NIC's IPv6 policy is manual with addresses of its own: the test takes them as they are.\r\n");
  else if (EFI_ERROR(status))
    LogPrint(u"The NIC's IPv6 policy cannot be set to automatic (%r): the test takes the NIC as it is.\r\n",
             status);
  Ipv6Picture picture;
  NeighborClaim claim = {};
  Ipv6Readiness readiness = WaitForIpv6(nic, mac, !IsUnspecifiedIpv6(target_), progress, &picture, &claim);
  if (readiness == Ipv6Readiness::Waiting)
    return false; // the operator answered
  SayIpv6Picture(picture);
  if (readiness != Ipv6Readiness::Ready) {
    failCode_ = VerdictCode(readiness, claim);
    return true;
  }
  if (Ping(nic, picture))
    Attempts.Pass();
  return true;
}

void Ping6Run::Execute() {
  Show(Attempts::kOpening);
  if (!ReadOptions())
    return;
  Attempts attempts(*this, o_.Retries);
  for (; attempts.More(); attempts.Next()) {
    failCode_ = kEchoMissing;
    if (!Attempt(attempts))
      return;
  }
  attempts.Close(u"IPv6 ping test passed.\r\n", u"IPv6 ping test failed.\r\n", failCode_);
}

} // namespace

extern const TestInfo kPing6Test = {
    .Name = u"ping6test",
    .Description = u"This test checks that the NIC gets its IPv6 addresses and pings a host over IPv6.",
    .Options = kOptions.Rows,
    .Procedure = Ping6Test,
    .RunTime = 40,
    .ErrorGroup = kGroup,
    .Errors = kErrors,
};

EFI_STATUS Ping6Test(UINTN* Result, UINTN* ErrorCode) {
  return RunTest<Ping6Run>(Result, ErrorCode);
}
