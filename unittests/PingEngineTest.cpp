// The ICMP echo engine against a fake IPv4 driver and the fake firmware's virtual clock: request
// checksums, the reply check's refusals, the one-request-a-second pacing and the time-outs.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

#include "base/Globals.h"
#include "nic/FirmwareTraits.h"
#include "ping/BringUp.h"
#include "ping/Dhcp.h"
#include "ping/IcmpEcho.h"
#include "report/Output.h"
#include "fakes/FakeNetwork.h"

namespace {

constexpr UINT64 kSecond = 10000000;
const EFI_IPv4_ADDRESS kServer = {{10, 0, 2, 2}};
constinit EchoCounter gEchoes = {};
constexpr FirmwareTraits kFirmware = kAssumedFirmware;
// The ping test's way of using the engine: replies printed, one 60-second wait for the address.
constexpr EchoPolicy kEcho = {&gEchoes, true, AddressWait::OneTimer, &kFirmware};

struct PingEngineTest : ::testing::Test {
  FakeFirmware fw;
  FakeNic nic{fw, 3, 0x56};
  void SetUp() override {
    ResetOutputState();
    gImageHandle = reinterpret_cast<EFI_HANDLE>(0x1000);
  }
  void TearDown() override {
    EXPECT_EQ(nic.LiveChildren(), 0u);
    EXPECT_TRUE(fw.events.empty()) << fw.events.size() << " events left open";
    EXPECT_TRUE(fw.pool.empty());
    EXPECT_EQ(nic.badChecksums, 0u);
    gImageHandle = nullptr;
  }
  EFI_STATUS Ping(UINT32 count) { return ExecutePingProcess(nic.handle, kServer, count, nullptr, kEcho); }
  double Seconds() const { return double(fw.now) / kSecond; }
};

TEST(EchoRequest, IncrementalChecksumMatchesAFullOne) {
  UINT8 request[kEchoRequestBytes];
  UINT16 base = BuildEchoRequest(request, 0);
  EXPECT_EQ(OnesComplementSum(request, sizeof(request)), 0xFFFF);
  EXPECT_EQ(request[0], 8);
  for (UINT16 seq : {1, 2, 255, 256, 0x7FFF, 0xFFFE, 0xFFFF}) {
    SetEchoSequence(request, base, seq);
    EXPECT_EQ(request[6] | (request[7] << 8), seq);
    EXPECT_EQ(OnesComplementSum(request, sizeof(request)), 0xFFFF) << "sequence " << seq;
  }
}

TEST(EchoReply, RefusedPacketsDoNotCount) {
  FakeFirmware fw;
  ResetOutputState();
  EchoCounter counter = {0, 0};
  const EchoPolicy logged = {&counter, false, AddressWait::CountedTicks, &kFirmware};
  EFI_IP4_HEADER header{};
  header.Protocol = 1;
  header.SourceAddress = kServer;
  UINT8 icmp[64]{};
  EFI_IP4_RECEIVE_DATA rx{};
  rx.Header = &header;
  rx.DataLength = sizeof(icmp);
  rx.FragmentCount = 1;
  rx.FragmentTable[0] = {sizeof(icmp), icmp};
  EXPECT_TRUE(CheckEchoReply(&rx, kServer, logged));

  EXPECT_FALSE(CheckEchoReply(nullptr, kServer, logged));
  header.Protocol = 17;
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, logged));
  header.Protocol = 1;
  rx.DataLength = 15;
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, logged));
  rx.DataLength = sizeof(icmp);
  header.SourceAddress = {{10, 0, 2, 3}};
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, logged));
  header.SourceAddress = kServer;
  icmp[0] = 8; // a request, not a reply
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, logged));
  icmp[0] = 0;
  icmp[1] = 1;
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, logged));
  icmp[1] = 0;
  icmp[4] = 7; // another pinger's identifier
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, logged));
  icmp[4] = 0;
  rx.FragmentTable[0].FragmentLength = 4; // too short to hold an ICMP header
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, logged));
  EXPECT_EQ(counter.Replies, 1u);
  counter.Identifier = 7; // a caller with an identifier of its own takes that pinger's replies
  icmp[4] = 7;
  rx.FragmentTable[0].FragmentLength = sizeof(icmp);
  EXPECT_TRUE(CheckEchoReply(&rx, kServer, logged));
  EXPECT_EQ(counter.Replies, 2u);
}

TEST_F(PingEngineTest, AllRepliesArrive) {
  EXPECT_EQ(Ping(5), EFI_SUCCESS);
  ASSERT_EQ(nic.pingsSent.size(), 5u);
  for (UINTN i = 0; i < 5; ++i) {
    EXPECT_EQ(nic.pingsSent[i].second, i);
    EXPECT_NEAR(double(nic.pingsSent[i].first) / kSecond, double(i), 0.01); // one request a second
  }
  EXPECT_EQ(gEchoes.Replies, 5u);
  EXPECT_LT(Seconds(), 4.1);
}

TEST_F(PingEngineTest, SilentHostTimesOutAboutTwoSecondsAfterTheLastRequest) {
  nic.pingAnswers = false;
  EXPECT_EQ(Ping(1), EFI_TIMEOUT);
  EXPECT_EQ(nic.pingsSent.size(), 1u);
  EXPECT_NEAR(Seconds(), 2.0, 0.05);
}

TEST_F(PingEngineTest, PartialAnswersTimeOutOnTheFourthTick) {
  nic.unanswered = {1, 2};
  EXPECT_EQ(Ping(3), EFI_TIMEOUT);
  EXPECT_EQ(nic.pingsSent.size(), 3u);
  EXPECT_EQ(gEchoes.Replies, 1u);
  EXPECT_NEAR(Seconds(), 4.0, 0.05);
}

// A reply the NIC itself dropped, its receive buffers full, is named in the log where the NIC counts
// such frames; the count is read, never reset, and only its growth during the run is the run's.
TEST_F(PingEngineTest, RepliesTheNicDroppedAreNamedWhereItCountsThem) {
  FakeManager manager;
  VEX_MANAGER_PROTOCOL* link = &manager.protocol;
  InitDebugLevel(nullptr, nullptr, &link);
  const std::string said =
      "The NIC's driver counted 1 received frames dropped while the replies were awaited";
  nic.droppedByNic = {1};
  nic.rxDropped = 40; // dropped before the run
  EXPECT_EQ(Ping(3), EFI_TIMEOUT);
  EXPECT_EQ(gEchoes.Replies, 2u);
  EXPECT_NE(Narrow(manager.AllText()).find(said), std::string::npos);
  EXPECT_EQ(nic.rxDropped, 41u);

  manager.lines.clear(); // replies that never came: nothing dropped, nothing said
  nic.droppedByNic.clear();
  nic.unanswered = {0};
  EXPECT_EQ(Ping(1), EFI_TIMEOUT);
  EXPECT_EQ(Narrow(manager.AllText()).find("received frames dropped"), std::string::npos);

  manager.lines.clear(); // a driver without statistics: the verdict alone
  nic.unanswered.clear();
  nic.droppedByNic = {0};
  nic.keepsStatistics = false;
  EXPECT_EQ(Ping(1), EFI_TIMEOUT);
  EXPECT_EQ(Narrow(manager.AllText()).find("received frames dropped"), std::string::npos);
  ResetOutputState();
}

TEST_F(PingEngineTest, WaitsForTheAddress) {
  nic.mappedAt = 3 * kSecond; // the firmware's own DHCP binds after three seconds
  EXPECT_EQ(Ping(0), EFI_SUCCESS);
  EXPECT_TRUE(nic.pingsSent.empty());
  EXPECT_NEAR(Seconds(), 3.0, 0.05);
}

// After a link change the address lands on a new default interface; the child, configured before,
// is configured again at the first one-second look after the address came, not after the long wait.
TEST_F(PingEngineTest, AChildLeftOnTheOldInterfaceIsConfiguredAgain) {
  nic.mappedAt = 3 * kSecond + kSecond / 2;
  nic.childLeftBehind = true;
  EXPECT_EQ(Ping(1), EFI_SUCCESS);
  EXPECT_EQ(nic.pingsSent.size(), 1u);
  EXPECT_NEAR(Seconds(), 4.0, 0.05);
}

// Without IPv4 configuration 2 (no EDK2 network stack) nothing configures the child again: it waits
// out the long wait as the engine's definition has it.
TEST_F(PingEngineTest, WithoutIpv4Configuration2TheChildIsNotConfiguredAgain) {
  nic.mappedAt = 3 * kSecond + kSecond / 2;
  nic.childLeftBehind = true;
  constexpr FirmwareTraits noConfig2 = {0x2001E, 0, TRUE, false};
  const EchoPolicy echo = {&gEchoes, true, AddressWait::OneTimer, &noConfig2};
  EXPECT_EQ(ExecutePingProcess(nic.handle, kServer, 1, nullptr, echo), EFI_NO_MAPPING);
  EXPECT_NEAR(Seconds(), 61.0, 0.1);
}

// On an old platform the interactive test's wait counted in ticks ends after the first tick, and the
// progress callback is not called.
TEST_F(PingEngineTest, AnOldPlatformsTickWaitEndsAfterOneTick) {
  nic.mappedAt = ~0ull;
  constexpr FirmwareTraits old = {0x20000, 0, FALSE, true};
  EchoCounter counter = {0, 0};
  const EchoPolicy echo = {&counter, false, AddressWait::CountedTicks, &old};
  int calls = 0;
  const PingProgress progress = {[](void* c, UINTN, UINTN) -> EFI_STATUS {
                                   ++*static_cast<int*>(c);
                                   return EFI_SUCCESS;
                                 },
                                 &calls};
  EXPECT_EQ(ExecutePingProcess(nic.handle, kServer, 1, &progress, echo), EFI_NO_MAPPING);
  EXPECT_EQ(calls, 0);
  EXPECT_LT(Seconds(), 3.0);
}

// The traits as read from the firmware: the revision and family decide the platform, IPv4
// configuration 2 on any handle the rest; an old platform is logged.
TEST(FirmwareTraitsRead, RevisionFamilyAndIpv4Configuration2) {
  FakeFirmware fw;
  FakeManager manager;
  VEX_MANAGER_PROTOCOL* link = &manager.protocol;
  ResetOutputState();
  InitDebugLevel(nullptr, nullptr, &link);
  fw.st.Hdr.Revision = 0x0002001E; // 2.30
  FirmwareTraits t = ReadFirmwareTraits();
  EXPECT_TRUE(t.CurrentPlatform);
  EXPECT_FALSE(t.Ip4Config2);      // nothing carries the protocol
  fw.st.Hdr.Revision = 0x0002000A; // 2.10 on a platform of unknown family: old
  t = ReadFirmwareTraits();
  EXPECT_FALSE(t.CurrentPlatform);
  EXPECT_NE(Narrow(manager.AllText()).find("Old UEFI 0x2000A platform, family id 0x0"), std::string::npos);
  FakeNic nic{fw, 3, 0x56}; // EDK2's stack on a NIC: IPv4 configuration 2 with it
  EXPECT_TRUE(ReadFirmwareTraits().Ip4Config2);
  ResetOutputState();
}

TEST_F(PingEngineTest, NoAddressAfterTheLongWait) {
  nic.mappedAt = ~0ull;
  EXPECT_EQ(Ping(1), EFI_NO_MAPPING);
  EXPECT_TRUE(nic.pingsSent.empty());
  EXPECT_NEAR(Seconds(), 61.0, 0.1); // one second, then sixty
}

// ---- DHCPv4 ----

struct DhcpProcess : ::testing::Test {
  FakeFirmware fw;
  FakeNic nic{fw, 3, 0x56};
  UINT32 timeouts[1];
  EFI_DHCP4_CONFIG_DATA config = MakeDhcpConfig(timeouts);
  EFI_DHCP4_MODE_DATA mode{};
  EFI_DHCP4_PROTOCOL* dhcp = &nic.dhcp.p;
  void SetUp() override { ResetOutputState(); }
  // A fresh DHCPv4 child: counters and state as the service starts them.
  void Reset() {
    nic.dhcpState = Dhcp4Stopped;
    nic.dhcpConfigures = nic.dhcpStarts = nic.dhcpStops = 0;
    nic.dhcpDenials = nic.dhcpTimeouts = 0;
    fw.now = 0;
  }
  // The same, keeping the refusals and time-outs the test set up.
  void ResetKeepingFaults() {
    UINTN denials = nic.dhcpDenials, timeouts = nic.dhcpTimeouts;
    Reset();
    nic.dhcpDenials = denials;
    nic.dhcpTimeouts = timeouts;
  }
};

TEST_F(DhcpProcess, BoundLeaseExchangeAndRefusal) {
  nic.dhcpState = Dhcp4Bound; // the firmware's own client holds a lease
  EXPECT_EQ(StartConfigureProcess(dhcp, &config, &mode), EFI_SUCCESS);
  EXPECT_EQ(nic.dhcpConfigures + nic.dhcpStarts + nic.dhcpStops, 0u); // taken as it is
  EXPECT_EQ(mode.ServerAddress.Addr[3], 2);

  Reset();
  EXPECT_EQ(StartConfigureProcess(dhcp, &config, &mode), EFI_SUCCESS);
  EXPECT_EQ(nic.dhcpStarts, 1u);
  EXPECT_EQ(nic.dhcpStops, 1u);
  EXPECT_EQ(mode.State, Dhcp4Bound);
  EXPECT_EQ(nic.dhcpConfig.DiscoverTryCount, 1u);
  EXPECT_EQ(*nic.dhcpConfig.DiscoverTimeout, 3u);

  Reset();
  nic.dhcpDenials = 1;
  EXPECT_EQ(StartConfigureProcess(dhcp, &config, &mode), EFI_ACCESS_DENIED);
  Reset();
  nic.dhcpTimeouts = 1;
  EXPECT_EQ(StartConfigureProcess(dhcp, &config, &mode), EFI_TIMEOUT);
  EXPECT_EQ(nic.dhcpStops, 0u);
  EXPECT_EQ(StartConfigureProcess(nullptr, &config, &mode), EFI_INVALID_PARAMETER);
}

// The bring-up's DHCP tries, as the two ping tests set them, on a NIC that has its address.
struct BringUpTries : DhcpProcess {
  static inline int hookCalls = 0;
  static inline bool allow = true;
  static bool Hook(void*, UINTN, bool) {
    ++hookCalls;
    return allow;
  }
  BringUpHooks hooks = {nullptr, nullptr, Hook};
  BringUpResult Run(const DhcpTries& tries, bool holdChild) {
    ResetKeepingFaults();
    hookCalls = 0;
    gImageHandle = reinterpret_cast<EFI_HANDLE>(0x1000);
    BringUpPolicy policy = {ConfigRewrite::PolicyToDhcp, kEcho, tries, holdChild};
    BringUpResult result;
    {
      Ipv4BringUp up(policy, hooks);
      result = up.Run({nic.handle, nic.handle, nic.handle});
      if (result.Reason == BringUpReason::Up)
        mode = up.Lease();
      // A held child stays while the bring-up does, whatever DHCP gave; otherwise each attempt's goes
      // with the attempt.
      if (!holdChild || result.Reason == BringUpReason::Up) {
        EXPECT_EQ(nic.LiveChildren(), holdChild ? 1u : 0u);
      }
    }
    EXPECT_EQ(nic.LiveChildren(), 0u); // whatever the bring-up held is gone with it
    gImageHandle = nullptr;
    return result;
  }
};

TEST_F(BringUpTries, PingTestRefusalsTimeOutsAndTheOperator) {
  const DhcpTries ping = {1, 1, 0, 100, 200000, 1, 100000, false};
  nic.dhcpDenials = 5;
  BringUpResult result = Run(ping, true);
  EXPECT_EQ(result.Reason, BringUpReason::Up);
  EXPECT_EQ(nic.dhcpConfigures, 6u);
  EXPECT_NEAR(double(fw.now) / kSecond, 1.0, 0.05); // five pauses of 0.2 s
  EXPECT_EQ(mode.ServerAddress.Addr[3], 2);

  nic.dhcpDenials = 1000;
  result = Run(ping, true);
  EXPECT_EQ(result.Reason, BringUpReason::DhcpRefused);
  EXPECT_EQ(nic.dhcpConfigures, 101u); // the first call and 100 more
  EXPECT_NEAR(double(fw.now) / kSecond, 20.0, 0.05);

  nic.dhcpDenials = 0;
  nic.dhcpTimeouts = 1;
  EXPECT_EQ(Run(ping, true).Reason, BringUpReason::Up);
  EXPECT_EQ(nic.dhcpStarts, 2u);
  EXPECT_EQ(hookCalls, 1); // a progress step before the one repeat

  nic.dhcpTimeouts = 1000;
  result = Run(ping, true);
  EXPECT_EQ(result.Reason, BringUpReason::DhcpTimedOut);
  EXPECT_EQ(result.Status, EFI_TIMEOUT);
  EXPECT_EQ(nic.dhcpStarts, 2u);

  nic.dhcpTimeouts = 1000;
  allow = false; // the operator cancels at the progress step
  EXPECT_EQ(Run(ping, true).Reason, BringUpReason::OperatorAnswered);
  EXPECT_EQ(nic.dhcpStarts, 1u);
  allow = true;

  fw.failEvery = "DhcpConfigure";
  result = Run(ping, true);
  fw.failEvery.clear();
  EXPECT_EQ(result.Reason, BringUpReason::DhcpFailed);
  EXPECT_EQ(result.Status, EFI_DEVICE_ERROR);
  EXPECT_EQ(nic.dhcpConfigures, 0u); // other errors are not tried again
}

TEST_F(BringUpTries, InteractiveAttemptsEachOnANewChild) {
  const DhcpTries interactive = {3, 5, 1000000, 0, 0, 0, 0, true};
  nic.dhcpTimeouts = 1000;
  BringUpResult result = Run(interactive, false);
  EXPECT_EQ(result.Reason, BringUpReason::DhcpTimedOut);
  EXPECT_EQ(nic.dhcpStarts, 15u);                   // three attempts of five tries
  EXPECT_EQ(hookCalls, 2);                          // before the second and the third attempt
  EXPECT_NEAR(double(fw.now) / kSecond, 15.0, 0.1); // a second after each try

  nic.dhcpTimeouts = 0;
  nic.dhcpDenials = 7; // refusals count as failed tries: the second attempt's second try binds
  result = Run(interactive, false);
  EXPECT_EQ(result.Reason, BringUpReason::Up);
  EXPECT_EQ(nic.dhcpConfigures, 8u);
  EXPECT_EQ(mode.State, Dhcp4Bound);

  nic.mappedAt = ~0ull; // no address: DHCP is never tried
  nic.dhcpDenials = 0;
  EXPECT_EQ(Run({1, 1, 0, 0, 0, 0, 0, true}, false).Reason, BringUpReason::NoAddress);
  EXPECT_EQ(nic.dhcpConfigures, 0u);
}

} // namespace
