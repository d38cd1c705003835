// The failure sweep: every allocation and firmware call of a test run failed in turn, on the fake
// firmware's network stack, for each scenario of each test: no crash, nothing left behind, a defined
// result, the NIC in the state it was found in, and no buffer leaving the machine with pool leftovers.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <functional>
#include <memory>
#include <string>

#include "ping/HttpExchange.h"
#include "frame/Module.h"
#include "unittests/NicWorld.h"
#include "tests/TestTable.h"
#include "base/Globals.h"
#include "frame/TestModule.h"
#include "fakes/FakeFileSystem.h"
#include "fakes/FakeMachine.h"
#include "report/Output.h"
#include "report/Results.h"
#include "tests/SpeedTest.h"

namespace {

// ---- The failure sweep ----

// One scenario of a test: the option string, and what to change in the world before the run.
struct SweepScenario {
  const char* test;
  std::u16string options;
  std::function<void(NicWorld&)> setUp;
  struct Verdict {
    UINTN result, error;
    EFI_STATUS status = EFI_SUCCESS; // what the procedure returns
  } verdict;                         // the run without a fault
  uint64_t shards = 1;               // parts that run side by side (the long sweeps)
  // The interactive test's media check leaves a NIC whose Initialize failed started, as its
  // definition says; everywhere else a NIC ends in the state the run found it in.
  bool leavesStartedAfterFailedInitialize = false;
};

// Runs the scenario with use number failAt failing (0: none). Returns a bit set of what went
// wrong (1 something left behind, 2 no defined result, 4 the module did not start, 8 the NIC left
// in another state than it was found in, 16 a buffer left the machine with pool leftovers) and the
// uses counted.
int RunScenario(const SweepScenario& s, uint64_t failAt, uint64_t* uses,
                NicWorld::Outcome* outcome = nullptr) {
  NicWorld w;
  if (!w.Start())
    return 4;
  if (s.setUp)
    s.setUp(w);
  size_t pool = w.fw.pool.size();
  size_t events = w.fw.events.size();
  size_t opens = w.fw.OpensBy(kImage);
  UINT32 nicState = w.nic.mode.State;
  w.fw.FailUse(failAt);
  auto o = w.Execute(s.options);
  if (uses != nullptr)
    *uses = w.fw.uses;
  if (outcome != nullptr)
    *outcome = o;
  w.fw.failAt = 0;
  int wrong = 0;
  if (w.fw.pool.size() != pool || w.fw.events.size() != events || w.fw.OpensBy(kImage) != opens ||
      w.nic.LiveChildren() != 0 || w.ipv6.LiveChildren() != 0 || w.ipv6.policy != Ip6ConfigPolicyManual ||
      (w.web && (w.web->LiveChildren() != 0 || w.web->TokenPending())) || ExchangesLeftToFirmware() != 0 ||
      w.volume.openHandles != 0) {
    std::fprintf(stderr,
                 "%s, failure point %llu (%s): %zd pool allocations, %zd events, %zd opens, %zu children, %d "
                 "files left\n",
                 s.test, static_cast<unsigned long long>(failAt), w.fw.failedCall, w.fw.pool.size() - pool,
                 w.fw.events.size() - events, w.fw.OpensBy(kImage) - opens, size_t(w.nic.LiveChildren()),
                 w.volume.openHandles);
    wrong |= 1;
  }
  bool allowed = s.leavesStartedAfterFailedInitialize && w.fw.failedCall != nullptr &&
                 std::strcmp(w.fw.failedCall, "SnpInitialize") == 0 &&
                 w.nic.mode.State == EfiSimpleNetworkStarted;
  if (w.nic.mode.State != nicState && !allowed) {
    std::fprintf(stderr, "%s, failure point %llu (%s): NIC state %u, found in %u\n", s.test,
                 static_cast<unsigned long long>(failAt), w.fw.failedCall, unsigned(w.nic.mode.State),
                 unsigned(nicState));
    wrong |= 8;
  }
  if (w.fw.leftovers != 0) {
    std::fprintf(stderr, "%s, failure point %llu (%s): %zu buffers left the machine with pool leftovers\n",
                 s.test, static_cast<unsigned long long>(failAt), w.fw.failedCall, w.fw.leftovers);
    wrong |= 16;
  }
  // A result, or (where a test leaves the result alone on a firmware failure) an error status.
  bool decided = o.result != TEST_RESULT_IN_PROGRESS && o.result <= TEST_RESULT_SOFTWARE_ERROR;
  if (!decided && !(o.result == TEST_RESULT_IN_PROGRESS && EFI_ERROR(o.status)))
    wrong |= 2;
  // Whatever went wrong, the error code is one whose meaning the result lines can name.
  if (ErrorMeaningOf(o.error) == nullptr) {
    std::fprintf(stderr, "%s, failure point %llu (%s): error code 0x%llx means nothing\n", s.test,
                 static_cast<unsigned long long>(failAt), w.fw.failedCall,
                 static_cast<unsigned long long>(o.error));
    wrong |= 2;
  }
  return wrong;
}

// The interactive test's menus.
void WithMenus(NicWorld& w, INT64 answer = 0) {
  w.menus = std::make_unique<FakeMenus>(w.fw, true, true);
  w.menus->answer = answer;
}

// The NIC's HTTP and DNS clients, with a server that has a small file (a few answer calls, so that
// the sweep stays short).
void WithWeb(NicWorld& w) {
  w.web = std::make_unique<FakeWeb>(w.nic);
  w.web->body = std::string(5000, 'w');
}

// A second NIC beside the world's.
void WithSecondNic(NicWorld& w) {
  w.second = std::make_unique<FakeNic>(w.fw, 4, 0x57);
}

constexpr UINTN kFailed = TEST_RESULT_FAILED;
// The result the module found, left alone where a test reports a firmware failure by status only.
constexpr UINTN kUntouched = TEST_RESULT_IN_PROGRESS;

const std::vector<SweepScenario>& Scenarios() {
  static const std::vector<SweepScenario> scenarios = {
      {"pingtest/passes", u"-test=pingtest", nullptr, {TEST_RESULT_PASSED, 0}},
      {"pingtest/no cable",
       u"-test=pingtest",
       [](NicWorld& w) { w.nic.link = false; },
       {kFailed, 0x80160107}},
      {"pingtest/NIC not found", u"-test=pingtest -index=2", nullptr, {kFailed, 0x80160104}},
      // The network stack did not start: a simple network, no managed-network binding, no generator.
      {"pingtest/network stack not started",
       u"-test=pingtest",
       [](NicWorld& w) {
         std::erase_if(w.fw.protocols, [&](const FakeFirmware::Installed& p) {
           return std::memcmp(&p.guid, &EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID,
                              sizeof(EFI_GUID)) == 0;
         });
       },
       {kFailed, 0x80160103}},
      {"pingtest/no DHCP server",
       u"-test=pingtest",
       [](NicWorld& w) { w.nic.dhcpTimeouts = 1000; },
       {kFailed, 0x80160101}},
      {"pingtest/another DHCP client",
       u"-test=pingtest",
       [](NicWorld& w) { w.nic.dhcpDenials = 1000; },
       {kFailed, 0x80160106}},
      {"pingtest/ping unanswered",
       u"-test=pingtest -testrepeats=2",
       [](NicWorld& w) { w.nic.pingAnswers = false; },
       {kFailed, 0x80160102}},
      // The cable came after the firmware's DHCP gave up: DHCP started again, the child configured again.
      {"pingtest/cable came late",
       u"-test=pingtest",
       [](NicWorld& w) {
         w.nic.mappedAt = ~0ull;
         w.nic.dhcpGaveUp = true;
         w.nic.childLeftBehind = true;
       },
       {TEST_RESULT_PASSED, 0}},
      {"ping6test/passes", u"-test=ping6test -testrepeats=2", nullptr, {TEST_RESULT_PASSED, 0}},
      {"ping6test/no router",
       u"-test=ping6test",
       [](NicWorld& w) { w.ipv6.router = false; },
       {kFailed, 0x80160804}},
      {"ping6test/DAD conflict",
       u"-test=ping6test",
       [](NicWorld& w) { w.ipv6.neighborHoldsLinkLocal = true; },
       {kFailed, 0x80160806}},
      {"ping6test/echo missing",
       u"-test=ping6test -testrepeats=2",
       [](NicWorld& w) { w.ipv6.echoAnswers = false; },
       {kFailed, 0x80160807}},
      {"downloadtest/passes",
       u"-test=downloadtest -url=http://files.example/f -sha256=" + DigestText(std::string(5000, 'w')),
       WithWeb,
       {TEST_RESULT_PASSED, 0}},
      {"downloadtest/firmware hash",
       u"-test=downloadtest -url=http://10.0.2.2/f -sha256=" + DigestText(std::string(5000, 'w')),
       [](NicWorld& w) {
         WithWeb(w);
         w.web->OfferHash2();
       },
       {TEST_RESULT_PASSED, 0}},
      {"downloadtest/IPv6 server",
       u"-test=downloadtest -url=http://[fec0::2]/f",
       WithWeb,
       {TEST_RESULT_PASSED, 0}},
      {"downloadtest/unknown name",
       u"-test=downloadtest -url=http://nosuch.example/f",
       WithWeb,
       {kFailed, 0x80160905}},
      {"downloadtest/stalled",
       u"-test=downloadtest -url=http://10.0.2.2/f -timeout=1",
       [](NicWorld& w) {
         WithWeb(w);
         w.web->stallAfter = 2000;
       },
       {kFailed, 0x80160909}},
      {"downloadtest/TLS failed",
       u"-test=downloadtest -url=https://files.example/f",
       [](NicWorld& w) {
         WithWeb(w);
         w.web->request = EFI_ABORTED;
       },
       {kFailed, 0x80160907}},
      {"IRQTest/passes", u"-test=IRQTest -DeviceID=1000", nullptr, {TEST_RESULT_PASSED, 0}},
      {"IRQTest/device not found", u"-test=IRQTest -DeviceID=8139", nullptr, {kFailed, 0x80160104}},
      {"detectcable/stopped NIC",
       u"-test=detectcable",
       [](NicWorld& w) {
         w.volume.AddFile(u"\\flags\\Network7.flg");
         w.nic.mode.State = EfiSimpleNetworkStopped;
       },
       {TEST_RESULT_PASSED, 0}},
      // No cable is no failure of this test: it writes no flag and passes.
      {"detectcable/no cable",
       u"-test=detectcable",
       [](NicWorld& w) { w.nic.link = false; },
       {TEST_RESULT_PASSED, 0}},
      {"macaddresstest/pattern checked",
       u"-test=macaddresstest -verifyinvalidmacpattern=true",
       [](NicWorld& w) { w.volume.AddFile(u"\\Network.ini", "[Invalid_MACPattern]\r\nA=ff:.*\r\n"); },
       {TEST_RESULT_PASSED, 0}},
      {"macaddresstest/pattern matched",
       u"-test=macaddresstest -verifyinvalidmacpattern=true",
       [](NicWorld& w) {
         const UINT8 listed[6] = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
         std::memcpy(w.nic.mode.PermanentAddress.Addr, listed, 6);
         w.volume.AddFile(u"\\Network.ini", "[Invalid_MACPattern]\r\nA=00:1A:2B:.*\r\n");
       },
       {kFailed, 0x80160402}},
      {"SpeedTest/passes", u"-test=SpeedTest -PacketsCount=1000", nullptr, {TEST_RESULT_PASSED, 0}, 4},
      {"SpeedTest/ring full",
       u"-test=SpeedTest -PacketsCount=1000 -NetworkSpeed=1",
       [](NicWorld& w) { w.nic.txRingSlots = 300; },
       {TEST_RESULT_PASSED, 0},
       4},
      {"SpeedTest/frames refused",
       u"-test=SpeedTest -PacketsCount=1000",
       [](NicWorld& w) { w.nic.refusedFrames = {500}; },
       {kUntouched, 0, EFI_DEVICE_ERROR}}, // no figure: the status alone says why
      {"SpeedTest/cable pulled",
       u"-test=SpeedTest -PacketsCount=1000",
       [](NicWorld& w) {
         w.nic.failedFrames = {200, 201};
       },
       {kUntouched, 0, EFI_ABORTED}},
      // The DHCP path with a policy switch the driver applies later (a silent gateway would add a
      // two-second wait's worth of polls, the same calls over and over).
      {"interactivenetworktest/DHCP path",
       u"-test=interactivenetworktest",
       [](NicWorld& w) {
         WithMenus(w);
         w.nic.policy = Ip4Config2PolicyStatic;
         w.nic.setDataNotReady = true;
       },
       {TEST_RESULT_PASSED, 0},
       2,
       true},
      // A NIC nobody runs, on a configuration whose gateway answers: the media check starts it and
      // must stop it again.
      {"interactivenetworktest/stopped NIC",
       u"-test=interactivenetworktest",
       [](NicWorld& w) {
         WithMenus(w);
         w.nic.mode.State = EfiSimpleNetworkStopped;
         w.nic.policy = Ip4Config2PolicyStatic;
         w.nic.gateway = {{10, 0, 2, 2}};
       },
       {TEST_RESULT_PASSED, 0},
       1,
       true},
      {"interactivenetworktest/menu cancelled",
       u"-test=interactivenetworktest",
       [](NicWorld& w) {
         WithSecondNic(w);
         WithMenus(w, -1);
       },
       {TEST_RESULT_CANCELLED, 0x80000001}},
      {"interactivenetworktest/no cable",
       u"-test=interactivenetworktest",
       [](NicWorld& w) {
         WithMenus(w);
         w.nic.link = false;
       },
       {TEST_RESULT_WARNING, 0x80160301},
       1,
       true},
      {"interactivenetworktest/no DHCP server",
       u"-test=interactivenetworktest",
       [](NicWorld& w) {
         WithMenus(w); // the NIC keeps its address: a wait for one that never comes is 60 s of polls
         w.nic.dhcpTimeouts = 1000;
       },
       {kFailed, 0x80160302},
       1,
       true},
      {"NicSpeedTest/rated built in",
       u"-test=NicSpeedTest",
       [](NicWorld& w) {
         const UINT8 rtl8168[] = {0xEC, 0x10, 0x68, 0x81};
         std::memcpy(w.nic.config, rtl8168, sizeof(rtl8168));
       },
       {TEST_RESULT_PASSED, 0}},
      {"NicSpeedTest/rated in Network.ini",
       u"-test=NicSpeedTest",
       [](NicWorld& w) {
         w.volume.AddFile(u"\\Network.ini", "[NIC_Speed]\r\nbad\r\n1af4:1000=0x80000003\r\n");
       },
       {TEST_RESULT_PASSED, 0}},
      {"NicSpeedTest/not rated", u"-test=NicSpeedTest", nullptr, {kFailed, 0x800000FF, EFI_UNSUPPORTED}},
  };
  return scenarios;
}

std::string ReadSourceFile(const std::string& path) {
  std::ifstream f(std::string(SOURCE_DIR) + "/" + path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

// A test is more than its file and its table line: the expected catalog, the compatibility
// matrix's calls, the failure sweep and the README name it too. Adding one without them fails here
// (the README's "Adding a test" lists the places).
TEST(TestTable, EveryTestHasItsPlacesOutsideTheTable) {
  std::string catalog = ReadSourceFile("unittests/expected/catalog.xml");
  std::string matrix = ReadSourceFile("vm/wcvm/matrixrows.py");
  std::string readme = ReadSourceFile("README.md");
  ASSERT_FALSE(catalog.empty() || matrix.empty() || readme.empty())
      << "the source tree is not at " << SOURCE_DIR;
  for (UINTN n = 0; kTestTable[n] != nullptr; ++n) {
    std::string name = Narrow(kTestTable[n]->Name);
    EXPECT_NE(catalog.find("\"" + name + "\""), std::string::npos)
        << name << ": not in unittests/expected/catalog.xml";
    EXPECT_NE(matrix.find("(\"" + name + "\", \"-test=" + name), std::string::npos)
        << name << ": no call in vm/wcvm/matrixrows.py's CALLS";
    EXPECT_NE(readme.find("`" + name + "`"), std::string::npos) << name << ": the README does not name it";
    bool swept = false;
    for (const SweepScenario& scenario : Scenarios())
      swept |= std::string(scenario.test).rfind(name + "/", 0) == 0;
    EXPECT_TRUE(swept) << name << ": no scenario in the failure sweep";
  }
}

// One sweep: a scenario's failure points, or every Shards-th of them from Shard on (a long sweep is
// split so that its parts run side by side).
struct SweepPart {
  size_t Scenario;
  uint64_t Shard, Shards;
};

void PrintTo(const SweepPart& part, std::ostream* out) {
  *out << Scenarios()[part.Scenario].test << " part " << part.Shard + 1 << " of " << part.Shards;
}

class FailureSweep : public testing::TestWithParam<SweepPart> {};

TEST_P(FailureSweep, EveryAllocationAndFirmwareCallFailedInTurn) {
  const SweepPart part = GetParam();
  const SweepScenario& s = Scenarios()[part.Scenario];
  RunScenario(s, 0, nullptr); // settles what a first run measures once per image
  uint64_t points = 0;
  NicWorld::Outcome seen;
  ASSERT_EQ(RunScenario(s, 0, &points, &seen), 0) << s.test << " fails without any fault";
  EXPECT_EQ(seen.result, s.verdict.result) << s.test;
  EXPECT_EQ(seen.error, s.verdict.error) << s.test;
  EXPECT_EQ(seen.status, s.verdict.status) << s.test;
  ASSERT_GT(points, 0u);
  std::vector<uint64_t> mine;
  for (uint64_t n = 1 + part.Shard; n <= points; n += part.Shards)
    mine.push_back(n);
  unsigned crashes = 0, leaks = 0, undefined = 0, moved = 0, leftovers = 0;
  // The points run in turn in a child process, which reports each finding through a pipe; a
  // sanitizer report or a signal ends the child, and a new one goes on after the point it died on.
  for (size_t next = 0; next < mine.size();) {
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    std::fflush(nullptr);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(pipeFds[0]);
      for (size_t i = next; i < mine.size(); ++i) {
        char wrong = char(RunScenario(s, mine[i], nullptr));
        if (write(pipeFds[1], &wrong, 1) != 1)
          _exit(1);
      }
      _exit(0);
    }
    close(pipeFds[1]);
    char wrong = 0;
    for (; read(pipeFds[0], &wrong, 1) == 1; ++next) {
      if (wrong & 1) {
        ++leaks;
        ADD_FAILURE() << s.test << ": failure point " << mine[next] << " left something behind";
      }
      if (wrong & 2) {
        ++undefined;
        ADD_FAILURE() << s.test << ": failure point " << mine[next] << " gave no defined result";
      }
      if (wrong & 8) {
        ++moved;
        ADD_FAILURE() << s.test << ": failure point " << mine[next] << " left the NIC in another state";
      }
      if (wrong & 16) {
        ++leftovers;
        ADD_FAILURE() << s.test << ": failure point " << mine[next] << " sent pool leftovers";
      }
    }
    close(pipeFds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (next < mine.size()) {
      ++crashes;
      ADD_FAILURE() << s.test << ": failure point " << mine[next] << " crashed";
      ++next;
    }
  }
  std::string name = s.test;
  if (part.Shards > 1)
    name += "[" + std::to_string(part.Shard + 1) + "/" + std::to_string(part.Shards) + "]";
  std::printf("SWEEP %s points=%zu crashes=%u leaks=%u nic-state-changed=%u leftovers-sent=%u\n",
              name.c_str(), mine.size(), crashes, leaks, moved, leftovers);
}

std::vector<SweepPart> SweepParts() {
  std::vector<SweepPart> parts;
  for (size_t i = 0; i < Scenarios().size(); ++i) {
    uint64_t shards = Scenarios()[i].shards;
    for (uint64_t k = 0; k < shards; ++k)
      parts.push_back({i, k, shards});
  }
  return parts;
}

INSTANTIATE_TEST_SUITE_P(Tests, FailureSweep, testing::ValuesIn(SweepParts()),
                         [](const testing::TestParamInfo<SweepPart>& info) {
                           std::string name = Scenarios()[info.param.Scenario].test;
                           for (char& c : name)
                             if (!std::isalnum(static_cast<unsigned char>(c)))
                               c = '_';
                           return name +
                                  (info.param.Shards > 1 ? "_" + std::to_string(info.param.Shard + 1) : "");
                         });

} // namespace
