// The ICMP echo engine against a fake IPv4 driver and the fake firmware's virtual clock: request
// checksums, the reply check's refusals, the one-request-a-second pacing and the time-outs.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

#include "base/Globals.h"
#include "ping/Dhcp.h"
#include "ping/IcmpEcho.h"
#include "report/Output.h"
#include "fakes/FakeFirmware.h"

namespace {

constexpr UINT64 kSecond = 10000000;
EFI_HANDLE const kNic = reinterpret_cast<EFI_HANDLE>(0x4000);
EFI_HANDLE const kChild = reinterpret_cast<EFI_HANDLE>(0x4100);
const EFI_IPv4_ADDRESS kServer = {{10, 0, 2, 2}};

// An IPv4 service with one child: answers the requests whose sequence numbers are listed.
struct FakeIp4 {
  EFI_SERVICE_BINDING_PROTOCOL binding{Create, Destroy};
  EFI_IP4_PROTOCOL ip4{GetModeData, Configure, nullptr, nullptr, Transmit, Receive, Cancel, Poll};
  static inline FakeIp4* self = nullptr;

  std::set<UINT16> answered; // sequence numbers that get a reply
  UINT64 replyDelay = 20000; // 2 ms
  UINT64 configuredAt = 0;   // virtual time from which the child has an address; ~0: never
  bool configured = false;
  int liveChildren = 0;
  std::vector<std::pair<UINT64, UINT16>> sent; // (time, sequence)
  std::vector<std::pair<UINT64, UINT16>> due;  // replies on their way
  EFI_IP4_COMPLETION_TOKEN* rxToken = nullptr;
  EFI_IP4_RECEIVE_DATA rxData{};
  EFI_IP4_HEADER header{};
  UINT8 reply[272]{};
  FakeFirmware* fw;

  explicit FakeIp4(FakeFirmware& f) : fw(&f) {
    self = this;
    f.AddProtocol(kNic, EFI_IP4_SERVICE_BINDING_PROTOCOL_GUID, &binding);
  }
  static EFI_STATUS EFIAPI Create(EFI_SERVICE_BINDING_PROTOCOL*, EFI_HANDLE* child) {
    self->fw->AddProtocol(kChild, EFI_IP4_PROTOCOL_GUID, &self->ip4);
    *child = kChild;
    ++self->liveChildren;
    return EFI_SUCCESS;
  }
  static EFI_STATUS EFIAPI Destroy(EFI_SERVICE_BINDING_PROTOCOL*, EFI_HANDLE child) {
    self->fw->RemoveHandle(child);
    --self->liveChildren;
    return EFI_SUCCESS;
  }
  bool HasAddress() const { return configuredAt != ~0ull && fw->now >= configuredAt; }
  static EFI_STATUS EFIAPI GetModeData(EFI_IP4_PROTOCOL*, EFI_IP4_MODE_DATA* mode,
                                       EFI_MANAGED_NETWORK_CONFIG_DATA*, EFI_SIMPLE_NETWORK_MODE*) {
    *mode = {};
    mode->IsConfigured = self->configured && self->HasAddress();
    return EFI_SUCCESS;
  }
  static EFI_STATUS EFIAPI Configure(EFI_IP4_PROTOCOL*, EFI_IP4_CONFIG_DATA* config) {
    if (config == nullptr) {
      self->configured = false;
      if (self->rxToken != nullptr)
        self->rxToken->Status = EFI_ABORTED;
      self->rxToken = nullptr;
      return EFI_SUCCESS;
    }
    self->configured = true;
    return self->HasAddress() ? EFI_SUCCESS : EFI_NO_MAPPING;
  }
  static EFI_STATUS EFIAPI Transmit(EFI_IP4_PROTOCOL*, EFI_IP4_COMPLETION_TOKEN* token) {
    const auto* icmp = static_cast<const UINT8*>(token->Packet.TxData->FragmentTable[0].FragmentBuffer);
    EXPECT_EQ(OnesComplementSum(icmp, kEchoRequestBytes), 0xFFFF) << "bad checksum";
    UINT16 seq = UINT16(icmp[6] | (icmp[7] << 8));
    self->sent.push_back({self->fw->now, seq});
    if (self->answered.count(seq))
      self->due.push_back({self->fw->now + self->replyDelay, seq});
    token->Status = EFI_SUCCESS;
    return EFI_SUCCESS;
  }
  static EFI_STATUS EFIAPI Receive(EFI_IP4_PROTOCOL*, EFI_IP4_COMPLETION_TOKEN* token) {
    self->rxToken = token;
    return EFI_SUCCESS;
  }
  static EFI_STATUS EFIAPI Cancel(EFI_IP4_PROTOCOL*, EFI_IP4_COMPLETION_TOKEN* token) {
    token->Status = EFI_ABORTED;
    return EFI_SUCCESS;
  }
  static EFI_STATUS EFIAPI Poll(EFI_IP4_PROTOCOL*) {
    auto& s = *self;
    if (s.rxToken == nullptr || s.due.empty() || s.due.front().first > s.fw->now)
      return EFI_SUCCESS;
    UINT16 seq = s.due.front().second;
    s.due.erase(s.due.begin());
    s.header.Protocol = 1;
    s.header.SourceAddress = kServer;
    std::memset(s.reply, 0, sizeof(s.reply));
    s.reply[6] = UINT8(seq);
    s.reply[7] = UINT8(seq >> 8);
    s.rxData.Header = &s.header;
    s.rxData.DataLength = sizeof(s.reply);
    s.rxData.FragmentCount = 1;
    s.rxData.FragmentTable[0] = {UINT32(sizeof(s.reply)), s.reply};
    s.rxToken->Packet.RxData = &s.rxData;
    s.rxToken->Status = EFI_SUCCESS;
    s.rxToken = nullptr;
    return EFI_SUCCESS;
  }
};

struct PingEngineTest : ::testing::Test {
  FakeFirmware fw;
  FakeIp4 ip4{fw};
  void SetUp() override {
    ResetOutputState();
    gImageHandle = reinterpret_cast<EFI_HANDLE>(0x1000);
  }
  void TearDown() override {
    EXPECT_EQ(ip4.liveChildren, 0);
    EXPECT_TRUE(fw.events.empty()) << fw.events.size() << " events left open";
    EXPECT_TRUE(fw.pool.empty());
    gImageHandle = nullptr;
  }
  EFI_STATUS Ping(UINT32 count) {
    return ExecutePingProcess(kNic, kServer, count, nullptr, PingVariant::PingTest);
  }
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
  ResetEchoReplyCount(PingVariant::Interactive);
  EFI_IP4_HEADER header{};
  header.Protocol = 1;
  header.SourceAddress = kServer;
  UINT8 icmp[64]{};
  EFI_IP4_RECEIVE_DATA rx{};
  rx.Header = &header;
  rx.DataLength = sizeof(icmp);
  rx.FragmentCount = 1;
  rx.FragmentTable[0] = {sizeof(icmp), icmp};
  EXPECT_TRUE(CheckEchoReply(&rx, kServer, PingVariant::Interactive));

  EXPECT_FALSE(CheckEchoReply(nullptr, kServer, PingVariant::Interactive));
  header.Protocol = 17;
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, PingVariant::Interactive));
  header.Protocol = 1;
  rx.DataLength = 15;
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, PingVariant::Interactive));
  rx.DataLength = sizeof(icmp);
  header.SourceAddress = {{10, 0, 2, 3}};
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, PingVariant::Interactive));
  header.SourceAddress = kServer;
  icmp[0] = 8; // a request, not a reply
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, PingVariant::Interactive));
  icmp[0] = 0;
  icmp[1] = 1;
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, PingVariant::Interactive));
  icmp[1] = 0;
  icmp[4] = 7; // another pinger's identifier
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, PingVariant::Interactive));
  icmp[4] = 0;
  rx.FragmentTable[0].FragmentLength = 4; // too short to hold an ICMP header
  EXPECT_FALSE(CheckEchoReply(&rx, kServer, PingVariant::Interactive));
  EXPECT_EQ(EchoReplyCount(PingVariant::Interactive), 1u);
}

TEST_F(PingEngineTest, AllRepliesArrive) {
  ip4.answered = {0, 1, 2, 3, 4};
  EXPECT_EQ(Ping(5), EFI_SUCCESS);
  ASSERT_EQ(ip4.sent.size(), 5u);
  for (UINTN i = 0; i < 5; ++i) {
    EXPECT_EQ(ip4.sent[i].second, i);
    EXPECT_NEAR(double(ip4.sent[i].first) / kSecond, double(i), 0.01); // one request a second
  }
  EXPECT_EQ(EchoReplyCount(PingVariant::PingTest), 5u);
  EXPECT_LT(Seconds(), 4.1);
}

TEST_F(PingEngineTest, SilentHostTimesOutAboutTwoSecondsAfterTheLastRequest) {
  EXPECT_EQ(Ping(1), EFI_TIMEOUT);
  EXPECT_EQ(ip4.sent.size(), 1u);
  EXPECT_NEAR(Seconds(), 2.0, 0.05);
}

TEST_F(PingEngineTest, PartialAnswersTimeOutOnTheFourthTick) {
  ip4.answered = {0};
  EXPECT_EQ(Ping(3), EFI_TIMEOUT);
  EXPECT_EQ(ip4.sent.size(), 3u);
  EXPECT_EQ(EchoReplyCount(PingVariant::PingTest), 1u);
  EXPECT_NEAR(Seconds(), 4.0, 0.05);
}

TEST_F(PingEngineTest, WaitsForTheAddress) {
  ip4.configuredAt = 3 * kSecond; // the firmware's own DHCP binds after three seconds
  EXPECT_EQ(Ping(0), EFI_SUCCESS);
  EXPECT_TRUE(ip4.sent.empty());
  EXPECT_NEAR(Seconds(), 3.0, 0.05);
}

TEST_F(PingEngineTest, NoAddressAfterTheLongWait) {
  ip4.configuredAt = ~0ull;
  EXPECT_EQ(Ping(1), EFI_NO_MAPPING);
  EXPECT_TRUE(ip4.sent.empty());
  EXPECT_NEAR(Seconds(), 61.0, 0.1); // one second, then sixty
}

// ---- DHCPv4 ----

struct FakeDhcp {
  EFI_DHCP4_PROTOCOL dhcp{GetModeData, Configure, Start, nullptr, nullptr, Stop, nullptr, nullptr, nullptr};
  static inline FakeDhcp* self = nullptr;
  EFI_DHCP4_STATE state = Dhcp4Stopped;
  EFI_STATUS configureAnswer = EFI_SUCCESS;
  int refuseConfigures = 0; // the first n configures are refused (another client is active)
  int timeoutStarts = 0;    // the first n starts time out
  EFI_STATUS startAnswer = EFI_SUCCESS;
  int configures = 0, starts = 0, stops = 0;
  FakeDhcp() { self = this; }
  static EFI_STATUS EFIAPI GetModeData(EFI_DHCP4_PROTOCOL*, EFI_DHCP4_MODE_DATA* mode) {
    *mode = {};
    mode->State = self->state;
    mode->ServerAddress = kServer;
    mode->ClientAddress = {{10, 0, 2, 15}};
    return EFI_SUCCESS;
  }
  static EFI_STATUS EFIAPI Configure(EFI_DHCP4_PROTOCOL*, EFI_DHCP4_CONFIG_DATA* config) {
    ++self->configures;
    EXPECT_EQ(config->DiscoverTryCount, 1u);
    EXPECT_EQ(*config->DiscoverTimeout, 3u);
    if (self->configures <= self->refuseConfigures)
      return EFI_ACCESS_DENIED;
    return self->configureAnswer;
  }
  static EFI_STATUS EFIAPI Start(EFI_DHCP4_PROTOCOL*, EFI_EVENT) {
    ++self->starts;
    if (self->starts <= self->timeoutStarts)
      return EFI_TIMEOUT;
    if (self->startAnswer == EFI_SUCCESS)
      self->state = Dhcp4Bound;
    return self->startAnswer;
  }
  static EFI_STATUS EFIAPI Stop(EFI_DHCP4_PROTOCOL*) {
    ++self->stops;
    return EFI_SUCCESS;
  }
};

TEST(DhcpProcess, BoundLeaseExchangeAndRefusal) {
  FakeFirmware fw;
  ResetOutputState();
  UINT32 timeouts[1];
  EFI_DHCP4_CONFIG_DATA config = MakeDhcpConfig(timeouts);
  EFI_DHCP4_MODE_DATA mode{};

  FakeDhcp bound;
  bound.state = Dhcp4Bound;
  EXPECT_EQ(StartConfigureProcess(&bound.dhcp, &config, &mode), EFI_SUCCESS);
  EXPECT_EQ(bound.configures + bound.starts + bound.stops, 0); // the firmware's lease is taken as it is
  EXPECT_EQ(mode.ServerAddress.Addr[3], 2);

  FakeDhcp fresh;
  EXPECT_EQ(StartConfigureProcess(&fresh.dhcp, &config, &mode), EFI_SUCCESS);
  EXPECT_EQ(fresh.starts, 1);
  EXPECT_EQ(fresh.stops, 1);
  EXPECT_EQ(mode.State, Dhcp4Bound);

  FakeDhcp busy;
  busy.configureAnswer = EFI_ACCESS_DENIED;
  EXPECT_EQ(StartConfigureProcess(&busy.dhcp, &config, &mode), EFI_ACCESS_DENIED);
  FakeDhcp silent;
  silent.startAnswer = EFI_TIMEOUT;
  EXPECT_EQ(StartConfigureProcess(&silent.dhcp, &config, &mode), EFI_TIMEOUT);
  EXPECT_EQ(silent.stops, 0);
  EXPECT_EQ(StartConfigureProcess(nullptr, &config, &mode), EFI_INVALID_PARAMETER);
}

TEST(DhcpProcess, PingTestRetryPolicy) {
  FakeFirmware fw;
  ResetOutputState();
  UINT32 timeouts[1];
  EFI_DHCP4_CONFIG_DATA config = MakeDhcpConfig(timeouts);
  EFI_DHCP4_MODE_DATA mode{};
  bool interrupted = false;
  static int hookCalls;
  hookCalls = 0;
  auto hook = [](void* allow) {
    ++hookCalls;
    return *static_cast<bool*>(allow);
  };
  bool allow = true;

  FakeDhcp busyThenFree;
  busyThenFree.refuseConfigures = 5;
  EXPECT_EQ(ConfigureWithPingRetries(&busyThenFree.dhcp, &config, &mode, hook, &allow, &interrupted),
            EFI_SUCCESS);
  EXPECT_EQ(busyThenFree.configures, 6);
  EXPECT_NEAR(double(fw.now) / kSecond, 1.0, 0.01); // five pauses of 0.2 s

  fw.now = 0;
  FakeDhcp alwaysBusy;
  alwaysBusy.refuseConfigures = 1000;
  EXPECT_EQ(ConfigureWithPingRetries(&alwaysBusy.dhcp, &config, &mode, hook, &allow, &interrupted),
            EFI_ACCESS_DENIED);
  EXPECT_EQ(alwaysBusy.configures, 101); // the first call and 100 more
  EXPECT_NEAR(double(fw.now) / kSecond, 20.0, 0.01);

  FakeDhcp slowServer;
  slowServer.timeoutStarts = 1;
  EXPECT_EQ(ConfigureWithPingRetries(&slowServer.dhcp, &config, &mode, hook, &allow, &interrupted),
            EFI_SUCCESS);
  EXPECT_EQ(slowServer.starts, 2);
  EXPECT_EQ(hookCalls, 1); // a progress step before the one retry

  FakeDhcp noServer;
  noServer.timeoutStarts = 1000;
  EXPECT_EQ(ConfigureWithPingRetries(&noServer.dhcp, &config, &mode, hook, &allow, &interrupted),
            EFI_TIMEOUT);
  EXPECT_EQ(noServer.starts, 2);
  EXPECT_FALSE(interrupted);

  FakeDhcp cancelled;
  cancelled.timeoutStarts = 1000;
  allow = false; // the operator cancels at the progress step
  EXPECT_EQ(ConfigureWithPingRetries(&cancelled.dhcp, &config, &mode, hook, &allow, &interrupted),
            EFI_TIMEOUT);
  EXPECT_EQ(cancelled.starts, 1);
  EXPECT_TRUE(interrupted);

  FakeDhcp broken;
  broken.configureAnswer = EFI_DEVICE_ERROR;
  EXPECT_EQ(ConfigureWithPingRetries(&broken.dhcp, &config, &mode, hook, &allow, &interrupted),
            EFI_DEVICE_ERROR);
  EXPECT_EQ(broken.configures, 1); // other errors are not retried
}

} // namespace
