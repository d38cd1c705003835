// The NIC tests through the module's protocol, on the fake firmware's network stack: the test
// table's consistency, the attempts of the NIC tests, pingtest and the interactive test end to end,
// and the media read they share.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "frame/Module.h"
#include "unittests/NicWorld.h"
#include "tests/TestTable.h"
#include "base/Globals.h"
#include "frame/TestModule.h"
#include "fakes/FakeMachine.h"
#include "nic/HiiConfig.h"
#include "nic/NicConfig.h"
#include "nic/Inventory.h"
#include "nic/MediaCheck.h"
#include "nic/NicAccess.h"
#include "report/Output.h"
#include "report/Results.h"
#include "report/Attempts.h"
#include "uefi/protocol/Rng.h"

namespace {

TEST(TestTable, NumbersNamesErrorGroupsAndMeaningsAgree) {
  std::set<std::u16string> names;
  UINTN n = 0;
  for (; kTestTable[n] != nullptr; ++n) {
    const TestInfo& t = *kTestTable[n];
    EXPECT_EQ(TestAt(INT64(n)), &t);
    EXPECT_EQ(t.ErrorGroup, TestErrorGroup(n)) << "test " << n << " is out of its place in the table";
    EXPECT_TRUE(names.insert(t.Name).second) << Narrow(t.Name) << " twice";
    EXPECT_GT(t.RunTime, 0u);
    EXPECT_NE(t.Options, nullptr);
    for (const ErrorMeaning* e = t.Errors; e != nullptr && e->Meaning != nullptr; ++e) {
      EXPECT_EQ(e->Code & ~UINTN(0xFF), t.ErrorGroup) << Narrow(t.Name) << " owns a code of another group";
      EXPECT_EQ(ErrorMeaningOf(e->Code), e->Meaning) << Narrow(t.Name);
    }
  }
  // The codes every test shares, and one nobody defines.
  EXPECT_NE(ErrorMeaningOf(ERROR_CODE_NIC_NOT_FOUND), nullptr);
  EXPECT_NE(ErrorMeaningOf(ERROR_CODE_NONE), nullptr);
  EXPECT_EQ(ErrorMeaningOf(0x80160199), nullptr);
  EXPECT_EQ(TestAt(-1), nullptr);
  EXPECT_EQ(TestAt(INT64(n)), nullptr);
}

// The choice of a NIC: the MAC node that ends a NIC's device path, and the handle by position or
// by PCI device ID and position.
TEST(NicAccess, MacNodeAndChoiceByPositionOrDeviceId) {
  FakeFirmware fw;
  FakeNic first{fw, 3, 0x56}, second{fw, 4, 0x57};
  gImageHandle = kImage;
  EFI_MAC_ADDRESS mac{};
  ASSERT_TRUE(DevicePathMac(reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(second.devicePath.data()), &mac));
  EXPECT_EQ(mac.Addr[5], 0x57);
  EXPECT_EQ(mac.Addr[6], 0); // the whole 32-byte field as the node holds it
  EXPECT_FALSE(DevicePathMac(reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(first.pciPath.data()), &mac));
  UINT8 endOnly[] = {END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, 4, 0};
  EXPECT_EQ(LastDevicePathNode(reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(endOnly)), nullptr);

  wc::HandleBuffer handles;
  ASSERT_EQ(handles.Locate(EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID), EFI_SUCCESS);
  ASSERT_EQ(handles.Count(), 2u);
  EFI_HANDLE nic = nullptr;
  EXPECT_EQ(SelectNicHandle(handles, 0, 2, nullptr, &nic), EFI_SUCCESS);
  EXPECT_EQ(nic, second.handle);
  EXPECT_EQ(SelectNicHandle(handles, 0, 3, nullptr, &nic), EFI_NOT_FOUND);
  EXPECT_EQ(nic, nullptr);

  static FakeNic* nics[2];
  nics[0] = &first;
  nics[1] = &second;
  second.config[2] = 0x68;
  second.config[3] = 0x81;
  auto readId = [](EFI_HANDLE handle, UINT16* id) -> EFI_STATUS {
    for (FakeNic* n : nics)
      if (n->handle == handle) {
        *id = UINT16(n->config[2] | (n->config[3] << 8));
        return EFI_SUCCESS;
      }
    return EFI_UNSUPPORTED;
  };
  EXPECT_EQ(SelectNicHandle(handles, 0x8168, 1, readId, &nic), EFI_SUCCESS);
  EXPECT_EQ(nic, second.handle);
  EXPECT_EQ(SelectNicHandle(handles, 0x8168, 2, readId, &nic), EFI_NOT_FOUND);
  EXPECT_EQ(SelectNicHandle(handles, 0x1000, 1, readId, &nic), EFI_SUCCESS);
  EXPECT_EQ(nic, first.handle);
  fw.RemoveHandle(first.handle);
  fw.AddProtocol(reinterpret_cast<EFI_HANDLE>(0x42), EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID, &fw);
  ASSERT_EQ(handles.Locate(EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID), EFI_SUCCESS);
  EXPECT_EQ(SelectNicHandle(handles, 0x9999, 1, readId, &nic),
            EFI_UNSUPPORTED); // a reader failure ends the walk
  gImageHandle = nullptr;
  handles.Reset();
  EXPECT_TRUE(fw.pool.empty());
}

// The attempts on their own: percentages and seconds of each report, the retry line, the
// operator's answers and the closing report, as the run's outcome.
struct AttemptsTest : ::testing::Test {
  struct Run : TestRun {};
  FakeFirmware fw;
  FakeManager mgr;
  VEX_MANAGER_PROTOCOL* link = &mgr.protocol;
  UINTN result = 99, error = 99;
  void SetUp() override {
    ResetOutputState();
    InitDebugLevel(nullptr, nullptr, &link);
  }
  void TearDown() override { ResetOutputState(); }
};

TEST_F(AttemptsTest, AttemptsReportTheirShareAndTheLastReportIsNinetyNine) {
  Run run;
  TestRun::Show(Attempts::kOpening);
  Attempts attempts(run, 2);
  UINTN count = 0;
  for (; attempts.More(); attempts.Next()) {
    ASSERT_TRUE(attempts.Begin());
    ++count;
    ASSERT_TRUE(attempts.Advance(5));
    attempts.Fail();
  }
  EXPECT_EQ(count, 3u);
  attempts.Close(u"ok\r\n", u"bad\r\n", 0x80160601);
  EXPECT_EQ(run.Deliver(&result, &error), EFI_SUCCESS);
  EXPECT_EQ(result, TEST_RESULT_FAILED);
  EXPECT_EQ(error, 0x80160601u);
  std::vector<std::pair<UINTN, UINTN>> seen;
  for (auto& r : mgr.progress)
    seen.push_back({r.percent, r.seconds});
  // 80 / 3 = 26 per attempt: 10, 36 and 62 %, each followed by its 5 % step.
  std::vector<std::pair<UINTN, UINTN>> want = {{1, 10}, {10, 9}, {15, 8}, {36, 6},
                                               {41, 5}, {62, 3}, {67, 3}, {99, 0}};
  EXPECT_EQ(seen, want);
  EXPECT_FALSE(mgr.progress.front().asked);
  EXPECT_FALSE(mgr.progress.back().asked);
  std::string log = Narrow(mgr.AllText());
  EXPECT_EQ(log, "Retry 1 time(s)...\r\nRetry 2 time(s)...\r\nbad\r\n");
}

TEST_F(AttemptsTest, OperatorAnswersEndTheRun) {
  Run failedRun;
  Attempts failed(failedRun, 0);
  mgr.answers = {0, TEST_RESULT_FAILED};
  ASSERT_TRUE(failed.Begin());
  EXPECT_FALSE(failed.Advance(5));
  failedRun.Deliver(&result, &error);
  EXPECT_EQ(result, TEST_RESULT_FAILED);
  EXPECT_EQ(error, ERROR_CODE_OPERATOR_ABORT);

  Run cancelledRun;
  Attempts cancelled(cancelledRun, 0);
  mgr.answers = {TEST_RESULT_CANCELLED};
  EXPECT_FALSE(cancelled.Begin());
  cancelledRun.Deliver(&result, &error);
  EXPECT_EQ(result, TEST_RESULT_CANCELLED);
  EXPECT_EQ(error, ERROR_CODE_NONE);

  Run passedRun;
  Attempts passed(passedRun, 5);
  ASSERT_TRUE(passed.Begin());
  passed.Pass();
  EXPECT_FALSE(passed.More());
  passed.Close(u"ok\r\n", u"bad\r\n", 1);
  passedRun.Deliver(&result, &error);
  EXPECT_EQ(result, TEST_RESULT_PASSED);
  EXPECT_EQ(error, ERROR_CODE_NONE);
}

TEST(PingTestOnFakes, PassesAndReleasesEverything) {
  NicWorld w;
  ASSERT_TRUE(w.Start());
  size_t pool = w.fw.pool.size();
  auto o = w.Execute(u"-test=pingtest -testrepeats=3");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  EXPECT_EQ(o.error, ERROR_CODE_NONE);
  EXPECT_EQ(w.nic.pingsSent.size(), 3u);
  EXPECT_EQ(w.hii.routed.size(), 1u); // the stored configuration of the one NIC
  EXPECT_EQ(w.fw.pool.size(), pool);
  EXPECT_EQ(w.nic.LiveChildren(), 0u);
  EXPECT_TRUE(w.fw.events.empty());
  EXPECT_EQ(w.fw.OpensBy(kImage), 0u);
  EXPECT_EQ(w.mgr.progress.back().percent, 99u);
}

// The cable came after the firmware's DHCP gave up: the NIC keeps the DHCP policy and no address
// until the policy is set again, which the test does before it waits for the address; the address
// then lands on a new default interface and the waiting child is configured again.
TEST(PingTestOnFakes, AFirmwareDhcpThatGaveUpIsStartedAgain) {
  NicWorld w;
  ASSERT_TRUE(w.Start());
  w.nic.mappedAt = ~0ull;
  w.nic.dhcpGaveUp = true;
  w.nic.childLeftBehind = true;
  auto o = w.Execute(u"-test=pingtest");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  EXPECT_EQ(w.nic.policySets, 1u);
  EXPECT_NE(w.Said().find(
                "the DHCP policy is set again, which starts the firmware's DHCP where it gave up (Success)"),
            std::string::npos);
  EXPECT_NE(w.Said().find("The NIC has address 10.0.2.15 but the IPv4 child, configured before it came, has "
                          "none: the child is configured again (Success)"),
            std::string::npos);
  // With an address, or on a static policy, nothing is set.
  o = w.Execute(u"-test=pingtest");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED);
  w.nic.policy = Ip4Config2PolicyStatic;
  o = w.Execute(u"-test=pingtest");
  EXPECT_EQ(w.nic.policySets, 1u);
}

// A configuration-access handle that is a child of the NIC's managed network: a driver of the
// stored IPv4 configuration (its path has that vendor node after the NIC's) or one of EDK2's IPv4
// and IPv6 forms (no such node). Path: the NIC's own path plus the vendor node when asked.
struct ConfigAccessChild {
  std::vector<UINT8> path;
  ConfigAccessChild(NicWorld& w, EFI_HANDLE handle, bool vendorNode, bool endOnly = false) {
    if (endOnly) {
      path = {END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, 4, 0};
    } else {
      path.assign(w.nic.devicePath.begin(), w.nic.devicePath.end() - 4);
      if (vendorNode) {
        path.insert(path.end(), {HARDWARE_DEVICE_PATH, HW_VENDOR_DP, 20, 0});
        const auto* guid = reinterpret_cast<const UINT8*>(&EFI_NIC_IP4_CONFIG_VARIABLE_GUID);
        path.insert(path.end(), guid, guid + sizeof(EFI_GUID));
      }
      path.insert(path.end(), {END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, 4, 0});
    }
    w.fw.AddProtocol(handle, EFI_HII_CONFIG_ACCESS_PROTOCOL_GUID, &w.hii);
    w.fw.AddProtocol(handle, EFI_DEVICE_PATH_PROTOCOL_GUID, path.data());
    w.fw.RecordOpen(w.nic.handle, EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID,
                    reinterpret_cast<EFI_HANDLE>(0x7700), handle, EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER);
  }
};

// The stored IPv4 configuration's driver is found whatever the handle order, and only a NIC
// without one may skip a RouteConfig that answers Not Found.
TEST(PingTestOnFakes, TheHiiRewriteFindsItsDriverInAnyHandleOrder) {
  auto handle = [](UINTN n) { return reinterpret_cast<EFI_HANDLE>(0x7000 + n); };
  {
    // Only EDK2's forms, the last of them a child of this NIC: nothing to rewrite.
    NicWorld w;
    ASSERT_TRUE(w.Start());
    ConfigAccessChild ip4Form(w, handle(1), false), ip6Form(w, handle(2), false);
    auto o = w.Execute(u"-test=pingtest");
    EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
    EXPECT_NE(w.Said().find("nothing to rewrite (Not Found)"), std::string::npos);
  }
  {
    // The driver before a form and after a path that is only its end node: the driver takes it.
    NicWorld w;
    ASSERT_TRUE(w.Start());
    w.hii.routeStatus = EFI_SUCCESS;
    ConfigAccessChild endOnly(w, handle(1), false, true), driver(w, handle(2), true),
        form(w, handle(3), false);
    auto o = w.Execute(u"-test=pingtest");
    EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
    ASSERT_EQ(w.hii.routed.size(), 1u);
    EXPECT_NE(w.hii.routed[0].find(u"01041400"), std::u16string::npos); // the vendor node in the PATH
  }
  {
    // A driver that was found and answers Not Found is a failure, not a skip.
    NicWorld w;
    ASSERT_TRUE(w.Start());
    ConfigAccessChild driver(w, handle(1), true);
    auto o = w.Execute(u"-test=pingtest");
    EXPECT_EQ(o.result, TEST_RESULT_FAILED);
    EXPECT_EQ(o.error, 0x800000FFu);
    EXPECT_NE(w.Said().find("Failed RouteConfig !(Not Found)"), std::string::npos);
  }
}

// Switching every NIC to DHCP: a NIC whose policy cannot be read is left as it is (and the
// operation's status is its close's), a close that fails ends the operation with its status.
TEST(NicConfiguration, SetNicConfigSkipsAnUnreadablePolicyAndChecksEveryClose) {
  NicWorld w;
  ASSERT_TRUE(w.Start());
  gImageHandle = kImage;
  w.nic.policy = Ip4Config2PolicyStatic;
  w.nic.policyRead = EFI_DEVICE_ERROR;
  EXPECT_EQ(SetNicConfig(), EFI_SUCCESS);
  EXPECT_EQ(w.nic.policySets, 0u);
  EXPECT_EQ(w.nic.policy, Ip4Config2PolicyStatic);

  w.nic.policyRead = EFI_SUCCESS;
  w.fw.failEvery = "FakeCloseProtocol";
  EXPECT_EQ(SetNicConfig(), EFI_DEVICE_ERROR);
  EXPECT_EQ(w.nic.policy, Ip4Config2PolicyDhcp); // switched before its close failed
  NicInfo nic{};
  EXPECT_EQ(GetNicConfig(&nic), EFI_DEVICE_ERROR);
  EXPECT_EQ(nic.Ip4Config2InterfaceInfo, nullptr);
  w.fw.failEvery.clear();
  gImageHandle = nullptr;
}

TEST(PingTestOnFakes, NoCableNoServerAndNoNic) {
  {
    NicWorld w;
    ASSERT_TRUE(w.Start());
    w.nic.link = false;
    auto o = w.Execute(u"-test=pingtest -retries=1");
    EXPECT_EQ(o.result, TEST_RESULT_FAILED);
    EXPECT_EQ(o.error, 0x80160107u);
    EXPECT_EQ(w.mgr.prompts, (std::vector<UINTN>{25, 25})); // once per attempt
    EXPECT_NE(w.Said().find("Retry......\r\n"), std::string::npos);
  }
  {
    NicWorld w;
    ASSERT_TRUE(w.Start());
    w.nic.dhcpTimeouts = 1000;
    auto o = w.Execute(u"-test=pingtest");
    EXPECT_EQ(o.error, 0x80160101u);
    EXPECT_EQ(w.nic.LiveChildren(), 0u);
  }
  {
    NicWorld w;
    ASSERT_TRUE(w.Start());
    w.nic.dhcpDenials = 1000; // another DHCP client holds the service
    auto o = w.Execute(u"-test=pingtest");
    EXPECT_EQ(o.error, 0x80160106u);
  }
  {
    NicWorld w;
    ASSERT_TRUE(w.Start());
    w.nic.pingAnswers = false;
    auto o = w.Execute(u"-test=pingtest");
    EXPECT_EQ(o.error, 0x80160102u);
  }
  {
    NicWorld w;
    ASSERT_TRUE(w.Start());
    auto o = w.Execute(u"-test=pingtest -index=2");
    EXPECT_EQ(o.error, ERROR_CODE_NIC_NOT_FOUND);
    w.fw.RemoveHandle(w.nic.handle);
    o = w.Execute(u"-test=pingtest");
    EXPECT_EQ(o.error, ERROR_CODE_NO_NIC);
  }
}

// Only a missing NIC ends the retries: a firmware call that answers Not Found for its own reasons
// is a failed attempt like any other.
TEST(PingTestOnFakes, AFirmwareNotFoundIsRetriedLikeAnyFailure) {
  NicWorld w;
  ASSERT_TRUE(w.Start());
  w.nic.ip4ConfigureAnswer = EFI_NOT_FOUND;
  auto o = w.Execute(u"-test=pingtest -retries=2");
  EXPECT_EQ(o.result, TEST_RESULT_FAILED);
  EXPECT_EQ(o.error, 0x80160101u);
  EXPECT_EQ(Count(w.Said(), "Retry......"), 2u) << w.Said();
  EXPECT_EQ(Count(w.Said(), "RunPingTest() error!"), 0u);
  EXPECT_EQ(w.mgr.progress.back().percent, 99u);
}

// A NIC with a simple network but no managed-network binding: the network stack did not start, and
// the log says what the module can see of why, the result staying "no NIC" (0x80160103).
TEST(PingTestOnFakes, ANetworkStackThatDidNotStartIsNamed) {
  NicWorld w;
  FakeMenus menus{w.fw, true, true};
  ASSERT_TRUE(w.Start());
  // None of the network drivers started: no managed-network, IPv4 or DHCPv4 binding on the NIC.
  std::erase_if(w.fw.protocols, [&](const FakeFirmware::Installed& p) {
    auto is = [&](const EFI_GUID& g) { return std::memcmp(&p.guid, &g, sizeof(EFI_GUID)) == 0; };
    return p.handle == w.nic.handle &&
           (is(EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID) ||
            is(EFI_IP4_SERVICE_BINDING_PROTOCOL_GUID) || is(EFI_DHCP4_SERVICE_BINDING_PROTOCOL_GUID));
  });
  auto o = w.Execute(u"-test=pingtest");
  EXPECT_EQ(o.error, ERROR_CODE_NO_NIC);
  EXPECT_NE(w.Said().find("it has no random-number generator (EFI_RNG_PROTOCOL)"), std::string::npos)
      << w.Said();
  // The interactive test's inventory finds no NIC either, and its log says the same.
  o = w.Execute(u"-test=interactivenetworktest");
  EXPECT_EQ(o.error, ERROR_CODE_NO_NIC);
  EXPECT_EQ(Count(w.Said(), "it has no random-number generator (EFI_RNG_PROTOCOL)"), 2u) << w.Said();

  int rng = 0;
  w.fw.AddProtocol(reinterpret_cast<EFI_HANDLE>(0x5000), EFI_RNG_PROTOCOL_GUID, &rng);
  o = w.Execute(u"-test=SpeedTest");
  EXPECT_EQ(o.error, ERROR_CODE_NO_NIC);
  EXPECT_NE(w.Said().find("no network driver is connected to them"), std::string::npos) << w.Said();

  w.fw.RecordOpen(w.nic.handle, EFI_SIMPLE_NETWORK_PROTOCOL_GUID, reinterpret_cast<EFI_HANDLE>(0x5100),
                  w.nic.handle, EFI_OPEN_PROTOCOL_BY_DRIVER);
  o = w.Execute(u"-test=pingtest");
  EXPECT_NE(w.Said().find("the managed-network service binding is missing"), std::string::npos) << w.Said();
}

TEST(InteractiveOnFakes, GatewayPathDhcpPathAndThePolicySwitch) {
  NicWorld w;
  FakeMenus menus{w.fw, true, true};
  ASSERT_TRUE(w.Start());
  // The default route has no gateway: the DHCP path, then three pings to the DHCP server.
  auto o = w.Execute(u"-test=interactivenetworktest");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  std::string said = w.Said();
  EXPECT_NE(said.find("Selected NIC Device: 52:54:00:12:34:56\r\n"), std::string::npos);
  EXPECT_NE(said.find("Network not configured correctly, starting configure with DHCP...\r\n"),
            std::string::npos);
  EXPECT_NE(said.find("Remote IP Address: 10.0.2.2\r\n"), std::string::npos);
  EXPECT_EQ(w.nic.dhcpStarts, 1u);
  EXPECT_TRUE(menus.shown.empty()); // one NIC: no menu

  // A static configuration whose gateway answers: no DHCP, the policy stays.
  w.nic.policy = Ip4Config2PolicyStatic;
  w.nic.gateway = {{10, 0, 2, 2}};
  w.mgr.lines.clear();
  o = w.Execute(u"-test=interactivenetworktest");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED);
  EXPECT_NE(w.Said().find("Network is configured correctly.\r\n"), std::string::npos);
  EXPECT_EQ(w.nic.dhcpStarts, 1u);
  EXPECT_EQ(w.nic.policy, Ip4Config2PolicyStatic);

  // A silent gateway: the NICs go to DHCP; a driver that applies the policy later is waited for
  // through a notification that is gone afterwards.
  w.nic.gateway = {{10, 0, 2, 9}};
  w.nic.setDataNotReady = true;
  w.mgr.lines.clear();
  o = w.Execute(u"-test=interactivenetworktest");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED);
  EXPECT_NE(w.Said().find("Failed to try to ping gateway ip!(Time out)\r\n"), std::string::npos) << w.Said();
  EXPECT_EQ(w.nic.policy, Ip4Config2PolicyDhcp);
  EXPECT_EQ(w.nic.policySets, 1u);
  EXPECT_TRUE(w.nic.notifies.empty());
  EXPECT_EQ(w.fw.OpensBy(kImage), 0u);
  EXPECT_EQ(w.nic.LiveChildren(), 0u);
}

TEST(InteractiveOnFakes, CableChecksPromptsAndTheFailurePrompt) {
  NicWorld w;
  FakeMenus menus{w.fw, true, true};
  ASSERT_TRUE(w.Start());
  w.nic.link = false;
  auto o = w.Execute(u"-test=interactivenetworktest");
  EXPECT_EQ(o.result, TEST_RESULT_WARNING);
  EXPECT_EQ(o.error, 0x80160301u);
  EXPECT_EQ(w.mgr.prompts, (std::vector<UINTN>{104, 105}));

  w.mgr.prompts.clear();
  w.mgr.abortPrompts = {104};
  o = w.Execute(u"-test=interactivenetworktest");
  EXPECT_EQ(o.result, TEST_RESULT_CANCELLED);
  EXPECT_EQ(o.error, ERROR_CODE_OPERATOR_ABORT);

  // A NIC that cannot report its link counts as cabled; when DHCP never binds, the failure prompt
  // says so. Three attempts of five tries with -retries=2.
  w.mgr.prompts.clear();
  w.mgr.abortPrompts.clear();
  w.nic.mode.MediaPresentSupported = FALSE;
  w.nic.dhcpTimeouts = 1000;
  size_t starts = w.nic.dhcpStarts;
  w.mgr.lines.clear();
  o = w.Execute(u"-test=interactivenetworktest -retries=2");
  EXPECT_EQ(o.result, TEST_RESULT_FAILED);
  EXPECT_EQ(o.error, 0x80160302u);
  EXPECT_EQ(w.mgr.prompts, (std::vector<UINTN>{107}));
  EXPECT_EQ(w.nic.dhcpStarts - starts, 15u);
  EXPECT_EQ(Count(w.Said(), "Retrying"), 2u);
}

TEST(InteractiveOnFakes, MenuNamesCancelAndTheTenNicLimit) {
  NicWorld w;
  FakeNic second{w.fw, 4, 0x57};
  FakeDriver driver{w.fw, w.nic, u"Virtio Network Card"};
  FakeMenus menus{w.fw, false, true}; // the console menu alone
  AddMessageFile(w);
  ASSERT_TRUE(w.Start());
  menus.answer = 1;
  auto o = w.Execute(u"-test=interactivenetworktest");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  EXPECT_NE(w.Said().find("Selected NIC Device: 52:54:00:12:34:57\r\n"), std::string::npos);
  EXPECT_NE(w.Said().find("Failed Locating GraphicsLibProtocol!\r\n"), std::string::npos);
  ASSERT_EQ(menus.shown.size(), 9u); // title, five text lines, two NICs, cancel
  EXPECT_EQ(menus.shown[0], u"Select the network adapter to test");
  EXPECT_EQ(menus.shown[6], u"Virtio Network Card"); // named by its driver
  EXPECT_EQ(menus.shown[7], u"NIC2: 52:54:00:12:34:57");
  EXPECT_EQ(menus.shown[8], u"Cancel the test");

  menus.answer = -1;
  menus.shown.clear();
  o = w.Execute(u"-test=interactivenetworktest -Lang=fra");
  EXPECT_EQ(o.result, TEST_RESULT_CANCELLED);
  EXPECT_EQ(o.error, ERROR_CODE_OPERATOR_ABORT);
  EXPECT_EQ(menus.shown[0], u"Sélectionnez la carte réseau à tester");

  std::vector<std::unique_ptr<FakeNic>> more;
  for (UINT8 d = 5; d < 14; ++d)
    more.push_back(std::make_unique<FakeNic>(w.fw, d, UINT8(0x60 + d)));
  menus.answer = 9;
  menus.shown.clear();
  w.mgr.lines.clear();
  o = w.Execute(u"-test=interactivenetworktest");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED);
  EXPECT_EQ(menus.shown.size(), 17u); // ten NICs, then the cancel entry
  EXPECT_EQ(menus.shown[16], u"Cancel the test");
  EXPECT_EQ(Count(w.Said(), "NIC devices are more than max supported(10)!\r\n"), 1u);
}

TEST(InteractiveOnFakes, NoNicAndNoMenuProtocol) {
  NicWorld w;
  ASSERT_TRUE(w.Start());
  auto o = w.Execute(u"-test=interactivenetworktest"); // no menu protocol at all
  EXPECT_EQ(o.result, TEST_RESULT_FAILED);
  EXPECT_EQ(o.error, ERROR_CODE_SOFTWARE);
  EXPECT_NE(w.Said().find("Failed Locating ConsoleLibProtocol!\r\n"), std::string::npos);

  FakeMenus menus{w.fw, true, false};
  w.fw.RemoveHandle(w.nic.handle);
  o = w.Execute(u"-test=interactivenetworktest");
  EXPECT_EQ(o.error, ERROR_CODE_NO_NIC);
  EXPECT_EQ(w.mgr.prompts, (std::vector<UINTN>{101}));
}

// One media read, both ways: through the simple network an idle NIC is started and put back, a
// running one asked for its status; through a managed-network child the mode data says it.
TEST(MediaRead, PutsTheNicBackAsItFoundItAndReportsEachStep) {
  FakeFirmware fw;
  FakeNic nic{fw, 3, 0x56};
  gImageHandle = kImage;
  MediaReport media = {};
  nic.mode.State = EfiSimpleNetworkStopped; // nobody had started it: left stopped
  EXPECT_EQ(ReadMedia(nic.handle, MediaPath::SimpleNetwork, false, &media), EFI_SUCCESS);
  EXPECT_TRUE(media.Present);
  EXPECT_FALSE(media.FoundRunning);
  EXPECT_EQ(media.Permanent.Addr[5], 0x56);
  EXPECT_EQ(nic.mode.State, EfiSimpleNetworkStopped);
  nic.mode.State = EfiSimpleNetworkStarted; // started, not initialized: Start refuses
  EXPECT_EQ(ReadMedia(nic.handle, MediaPath::SimpleNetwork, false, &media), EFI_ALREADY_STARTED);
  EXPECT_EQ(media.Step, MediaStep::StartFailed);
  nic.mode.State = EfiSimpleNetworkInitialized; // running: read, left running
  nic.link = false;
  EXPECT_EQ(ReadMedia(nic.handle, MediaPath::SimpleNetwork, false, &media), EFI_SUCCESS);
  EXPECT_FALSE(media.Present);
  EXPECT_TRUE(media.FoundRunning);
  EXPECT_EQ(media.StatusRead, EFI_SUCCESS);
  EXPECT_EQ(nic.mode.State, EfiSimpleNetworkInitialized);
  EXPECT_EQ(ReadMedia(nic.handle, MediaPath::ManagedNetworkChild, false, &media), EFI_SUCCESS);
  EXPECT_FALSE(media.Present);
  nic.mode.MediaPresentSupported = FALSE;
  EXPECT_EQ(ReadMedia(nic.handle, MediaPath::SimpleNetwork, false, &media), EFI_UNSUPPORTED);
  EXPECT_EQ(media.Step, MediaStep::NotSupported);
  EXPECT_EQ(ReadMedia(nic.handle, MediaPath::ManagedNetworkChild, false, &media), EFI_UNSUPPORTED);
  EXPECT_TRUE(fw.opens.empty());
  EXPECT_EQ(nic.LiveChildren(), 0u);
  gImageHandle = nullptr;
}

// The cable wait's shape: pauses before or after each read, the caller's hook after each read that
// saw none, and the caller's own stop.
TEST(MediaRead, CableWaitPassesChecksPausesAndHooks) {
  static std::vector<UINTN> pauses;
  pauses.clear();
  auto pause = [](UINTN us) { pauses.push_back(us); };
  std::vector<std::pair<UINTN, UINTN>> hooks;
  int reads = 0;
  auto absent = [&] { return ++reads == 7 ? CableSeen::Present : CableSeen::Absent; };
  auto hook = [&](UINTN pass, UINTN check) {
    hooks.push_back({pass, check});
    return true;
  };
  EXPECT_EQ(WaitForCable(CableWaitPlan{2, 5, 10, true}, absent, hook, pause), CableWaitEnd::Cabled);
  EXPECT_EQ(reads, 7);
  EXPECT_EQ(pauses.size(), 7u); // before each read
  EXPECT_EQ(hooks.back(), (std::pair<UINTN, UINTN>{1, 0}));
  reads = -100;
  pauses.clear();
  hooks.clear();
  EXPECT_EQ(WaitForCable(CableWaitPlan{1, 6, 10, false}, absent, hook, pause), CableWaitEnd::NoCable);
  EXPECT_EQ(pauses.size(), 6u); // after each read that saw none, the last included
  EXPECT_EQ(hooks.size(), 6u);
  auto stop = [](UINTN, UINTN) { return false; };
  EXPECT_EQ(WaitForCable(CableWaitPlan{1, 6, 10, false}, absent, stop, pause), CableWaitEnd::Stopped);
  auto failing = [] { return CableSeen::Stop; };
  EXPECT_EQ(WaitForCable(CableWaitPlan{1, 6, 10, false}, failing, hook, pause), CableWaitEnd::Stopped);
}

// The controller-name walk over a handle database of two drivers: one manages the PCI function and
// made the NIC's handle; the other also holds the function but made nothing on it.
TEST(InteractiveOnFakes, ControllerNameFollowsParentDriverAndChild) {
  FakeFirmware fw;
  FakeNic nic{fw, 3, 0x56};
  FakeDriver driver{fw, nic, u"Named NIC"};
  EFI_HANDLE other = reinterpret_cast<EFI_HANDLE>(0x7E5000);
  static int binding = 0;
  fw.AddProtocol(other, EFI_DRIVER_BINDING_PROTOCOL_GUID, &binding);
  fw.RecordOpen(nic.pciHandle, EFI_PCI_IO_PROTOCOL_GUID, other, nic.pciHandle, EFI_OPEN_PROTOCOL_BY_DRIVER);

  EFI_HANDLE* found = nullptr;
  UINTN count = 0;
  ASSERT_EQ(FindRelatedHandles(nullptr, nic.handle, HANDLE_PARENT, &found, &count), EFI_SUCCESS);
  EXPECT_EQ(std::vector<EFI_HANDLE>(found, found + count), std::vector<EFI_HANDLE>{nic.pciHandle});
  fw.bs.FreePool(found);
  ASSERT_EQ(FindRelatedHandles(nullptr, nic.pciHandle, HANDLE_DRIVER_BINDING | HANDLE_DEVICE_DRIVER, &found,
                               &count),
            EFI_SUCCESS);
  EXPECT_EQ(count, 2u);
  fw.bs.FreePool(found);
  EXPECT_EQ(FindRelatedHandles(other, nic.pciHandle, HANDLE_CHILD, &found, &count), EFI_NOT_FOUND);
  ASSERT_EQ(FindRelatedHandles(driver.handle, nic.pciHandle, HANDLE_CHILD | HANDLE_DEVICE, &found, &count),
            EFI_SUCCESS);
  EXPECT_EQ(std::vector<EFI_HANDLE>(found, found + count), std::vector<EFI_HANDLE>{nic.handle});
  fw.bs.FreePool(found);

  CHAR16* name = nullptr;
  EXPECT_EQ(GetControllerName(nic.handle, "fra", &name), EFI_SUCCESS);
  ASSERT_NE(name, nullptr);
  EXPECT_EQ(std::u16string(name), u"Named NIC");
  EXPECT_EQ(GetControllerName(nic.pciHandle, "eng", &name), EFI_NOT_FOUND); // no parent
  EXPECT_EQ(name, nullptr);
  EXPECT_TRUE(fw.pool.empty());
}

} // namespace
