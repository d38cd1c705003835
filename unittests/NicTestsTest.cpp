// The NIC tests through the module's protocol, on the fake firmware's network stack: the test
// table's consistency, the attempts of the NIC tests, pingtest end to end, and the failure sweep that fails
// each allocation and firmware call of a test run in turn.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "ping/HttpExchange.h"
#include "frame/Module.h"
#include "unittests/NicWorld.h"
#include "tests/TestTable.h"
#include "base/Globals.h"
#include "frame/CommandLine.h"
#include "frame/Dispatch.h"
#include "frame/Startup.h"
#include "frame/TestModule.h"
#include "fakes/FakeFileSystem.h"
#include "fakes/FakeNetwork.h"
#include "nic/HiiConfig.h"
#include "nic/NicConfig.h"
#include "nic/Inventory.h"
#include "nic/MediaCheck.h"
#include "nic/NicAccess.h"
#include "nic/Pci.h"
#include "options/OptionStore.h"
#include "report/Output.h"
#include "report/Results.h"
#include "report/Attempts.h"
#include "support/DebugLog.h"
#include "support/FileIo.h"
#include "tests/SpeedTest.h"
#include "uefi/protocol/LoadedImage.h"
#include "uefi/protocol/Rng.h"

namespace {

// How many times a text says something.
size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++n;
  return n;
}

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

// ---- The PCI side and the PCI tests ----

TEST(Pci, RootBridgeRangesAndConfigurationReads) {
  FakeFirmware fw;
  FakeNic nic{fw, 3, 0x56};
  FakeRootBridge bridge{fw, {&nic}};
  ASSERT_EQ(BuildPciRootBridgeTable(), EFI_SUCCESS);
  ASSERT_EQ(PciRootBridgeCount(), 1u);
  const PCI_ROOT_BRIDGE_ENTRY* e = PciRootBridgeAt(0);
  ASSERT_EQ(e->BusRangeCount, 1u);
  EXPECT_EQ(e->BusMax[0], 0xFFu);
  EXPECT_EQ(e->IoRangeCount + e->MemRangeCount, 0u);
  EXPECT_EQ(PciMaxSegment(), 0u);

  UINT16 id = 0;
  UINT8 line = 0;
  EXPECT_EQ(PciConfigRead16(0, 0, 3, 0, PCI_VENDOR_ID_OFFSET, &id), EFI_SUCCESS);
  EXPECT_EQ(id, 0x1AF4);
  EXPECT_EQ(PciConfigRead8(0, 0, 3, 0, PCI_INT_LINE_OFFSET, &line), EFI_SUCCESS);
  EXPECT_EQ(line, 11);
  EXPECT_EQ(PciConfigRead16(0, 0, 3, 0, 3, &id), EFI_INVALID_PARAMETER); // odd register
  EXPECT_EQ(PciConfigRead8(0, 256, 3, 0, 0, &line), EFI_INVALID_PARAMETER);
  EXPECT_EQ(PciConfigRead8(0, 0, 32, 0, 0, &line), EFI_INVALID_PARAMETER);
  EXPECT_EQ(PciConfigRead8(0, 0, 3, 8, 0, &line), EFI_INVALID_PARAMETER);
  EXPECT_EQ(PciConfigRead8(0, 0, 3, 0, 4096, &line), EFI_INVALID_PARAMETER);
  EXPECT_EQ(PciConfigRead8(1, 0, 3, 0, 0, &line), EFI_NOT_FOUND); // above the highest segment

  // A bus range with a translation offset, after a descriptor of another kind.
  std::vector<UINT8> d = {0x87, 0x17, 0x00};
  d.resize(3 + 0x17, 0);
  d.insert(d.end(), {0x47, 1, 0, 0, 0, 0, 1, 8}); // a small descriptor: (0x47 & 7) + 1 bytes
  d.insert(d.end(), {0x8A, 0x2B, 0x00, 2, 0, 0});
  for (UINT64 v : {0ull, 0x10ull, 0x1Full, 0x20ull, 0x10ull})
    for (int b = 0; b < 8; ++b)
      d.push_back(UINT8(v >> (8 * b)));
  d.insert(d.end(), {0x79, 0});
  bridge.descriptors = d;
  ASSERT_EQ(BuildPciRootBridgeTable(), EFI_SUCCESS);
  e = PciRootBridgeAt(0);
  ASSERT_EQ(e->BusRangeCount, 1u);
  EXPECT_EQ(e->BusMin[0], 0x30u);
  EXPECT_EQ(e->BusMax[0], 0x3Fu);
  EXPECT_EQ(PciConfigRead16(0, 0, 3, 0, 0, &id), EFI_NOT_FOUND); // bus 0 is not behind this bridge

  // The root bridge's own path begins every NIC's path too: the function, with more nodes, wins.
  std::vector<UINT8> rootPath(nic.pciPath.begin(), nic.pciPath.begin() + 12);
  rootPath.insert(rootPath.end(), {END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, 4, 0});
  EFI_PCI_IO_PROTOCOL rootIo{};
  EFI_HANDLE const kRoot = reinterpret_cast<EFI_HANDLE>(0x6000);
  fw.protocols.insert(fw.protocols.begin(), {kRoot, EFI_DEVICE_PATH_PROTOCOL_GUID, rootPath.data()});
  fw.protocols.insert(fw.protocols.begin(), {kRoot, EFI_PCI_IO_PROTOCOL_GUID, &rootIo});
  PciLocation where{};
  gImageHandle = kImage;
  EXPECT_EQ(GetNicPciLocation(nic.handle, &where), EFI_SUCCESS);
  EXPECT_EQ(where.Device, 3u);

  // Behind a USB port, or on no PCI node at all, a NIC has no PCI function of its own: its path's
  // node types say so (the text of either path says nothing the PCI tests could trust).
  std::vector<UINT8> usbPath(nic.pciPath.begin(), nic.pciPath.end() - 4);
  usbPath.insert(usbPath.end(), {MESSAGING_DEVICE_PATH, MSG_USB_CLASS_DP, 11, 0, 0, 0, 0, 0, 2, 6, 0});
  usbPath.insert(usbPath.end(), nic.devicePath.end() - 4 - 37, nic.devicePath.end());
  std::vector<UINT8> macOnly(nic.devicePath.end() - 4 - 37, nic.devicePath.end());
  for (std::vector<UINT8>* path : {&usbPath, &macOnly}) {
    for (auto& p : fw.protocols)
      if (p.handle == nic.handle &&
          std::memcmp(&p.guid, &EFI_DEVICE_PATH_PROTOCOL_GUID, sizeof(EFI_GUID)) == 0)
        p.iface = path->data();
    EXPECT_EQ(GetNicPciLocation(nic.handle, &where), EFI_UNSUPPORTED);
  }
  FreePciRootBridgeTable();
  gImageHandle = nullptr;
  EXPECT_TRUE(fw.pool.empty());
}

TEST(PciTestsOnFakes, IrqAndRatedSpeed) {
  {
    NicWorld w;
    ASSERT_TRUE(w.Start());
    auto o = w.Execute(u"-test=IRQTest -testrepeats=2");
    EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
    EXPECT_NE(w.Said().find("PCI Location[00:00:03:00] Interrupt Number 11\r\n"), std::string::npos);
    EXPECT_EQ(w.Said().find("unknown or no connection"), std::string::npos);
    // What an Arm machine's firmware leaves there: it passes, and the log says what it means.
    w.nic.config[PCI_INT_LINE_OFFSET] = 0xFF;
    o = w.Execute(u"-test=IRQTest");
    EXPECT_EQ(o.result, TEST_RESULT_PASSED);
    EXPECT_NE(w.Said().find("Interrupt Number 255\r\nInterrupt line 0xFF is \"unknown or no connection\""),
              std::string::npos);
    w.nic.config[PCI_INT_LINE_OFFSET] = 0;
    o = w.Execute(u"-test=IRQTest -retries=1");
    EXPECT_EQ(o.error, 0x80160701u);
    EXPECT_NE(w.Said().find("Retry 1 time(s)...\r\n"), std::string::npos);
    o = w.Execute(u"-test=IRQTest -DeviceID=0x1000 -index=2");
    EXPECT_EQ(o.error, ERROR_CODE_NIC_NOT_FOUND);
  }
  {
    NicWorld w;
    ASSERT_TRUE(w.Start());
    auto o = w.Execute(u"-test=NicSpeedTest");
    EXPECT_EQ(o.result, TEST_RESULT_FAILED); // a NIC the table does not know
    EXPECT_EQ(o.error, ERROR_CODE_SOFTWARE);
    EXPECT_EQ(o.status, EFI_UNSUPPORTED);
    w.nic.config[0] = 0xEC;
    w.nic.config[1] = 0x10;
    w.nic.config[2] = 0x68;
    w.nic.config[3] = 0x81;
    for (const char16_t* speed : {u"10", u"100", u"1000"}) {
      o = w.Execute(u"-test=NicSpeedTest -DeviceID=8168 -NetworkSpeed=" + std::u16string(speed));
      EXPECT_EQ(o.result, TEST_RESULT_PASSED) << Narrow(speed);
    }
    o = w.Execute(u"-test=NicSpeedTest -NetworkSpeed=1001 -retries=2");
    EXPECT_EQ(o.error, 0x80160601u);
    EXPECT_EQ(o.status, EFI_SUCCESS);
  }
  {
    // The fleet's rows in the network INI file beside the module: a malformed row is reported and
    // skipped (once per run, however many checks), a row for this NIC rates it, a file row wins
    // over a built-in one for the same NIC.
    NicWorld w;
    ASSERT_TRUE(w.Start());
    w.volume.AddFile(u"\\Network.ini", "[Invalid_MACPattern]\r\nA=ff:.*\r\n[NIC_Speed]\r\n1af4:1000 = 0x2\r\n"
                                       "8086-100E=3\r\n1af4:10000=2\r\n-1:1=2\r\n10ec:8168=0x1\r\n");
    auto o = w.Execute(u"-test=NicSpeedTest -NetworkSpeed=1000 -testrepeats=3");
    EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
    for (const char* bad : {"\"8086-100E=3\"", "\"1af4:10000=2\"", "\"-1:1=2\""})
      EXPECT_EQ(Count(w.Said(), std::string("Network.ini [NIC_Speed]: skipping ") + bad), 1u) << bad;
    EXPECT_EQ(Count(w.Said(), "Network.ini [NIC_Speed]: 1AF4:1000 rated 0x2"), 1u) << w.Said();
    EXPECT_EQ(Count(w.Said(), "Network.ini [NIC_Speed]: skipping "), 3u) << w.Said(); // not the header
    o = w.Execute(u"-test=NicSpeedTest -NetworkSpeed=1001");
    EXPECT_EQ(o.error, 0x80160601u);
    w.nic.config[0] = 0xEC;
    w.nic.config[1] = 0x10;
    w.nic.config[2] = 0x68;
    w.nic.config[3] = 0x81;
    o = w.Execute(u"-test=NicSpeedTest -NetworkSpeed=100"); // the file rates this 8168 for 10 alone
    EXPECT_EQ(o.error, 0x80160601u);
  }
}

TEST(MacAddressTestOnFakes, BuiltInChecksPatternsAndRetries) {
  NicWorld w;
  ASSERT_TRUE(w.Start());
  auto o = w.Execute(u"-test=macaddresstest");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();

  std::memset(w.nic.mode.PermanentAddress.Addr, 0, 6);
  o = w.Execute(u"-test=macaddresstest -retries=2");
  EXPECT_EQ(o.error, 0x80160402u);
  std::string said = w.Said();
  EXPECT_NE(said.find("Retry 1 time(s)...\r\nRetry 2 time(s)...\r\nMAC Address test failed!\r\n"),
            std::string::npos);
  std::vector<UINTN> attempts;
  for (auto& r : w.mgr.progress)
    if (r.asked)
      attempts.push_back(r.percent);
  EXPECT_EQ(std::vector<UINTN>(attempts.end() - 3, attempts.end()), (std::vector<UINTN>{10, 36, 62}));

  const UINT8 broadcastLike[6] = {0xFF, 0xFF, 0x12, 0x34, 0x56, 0x78};
  std::memcpy(w.nic.mode.PermanentAddress.Addr, broadcastLike, 6);
  EXPECT_EQ(w.Execute(u"-test=macaddresstest").error, 0x80160402u);
  const UINT8 almost[6] = {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  std::memcpy(w.nic.mode.PermanentAddress.Addr, almost, 6);
  EXPECT_EQ(w.Execute(u"-test=macaddresstest").result, TEST_RESULT_PASSED);

  const UINT8 listed[6] = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
  std::memcpy(w.nic.mode.PermanentAddress.Addr, listed, 6);
  w.volume.AddFile(u"\\Network.ini", "[Other]\r\nP=.*\r\n[invalid_macpattern]\r\nA = 00:1a:2b\r\nB=\r\n");
  EXPECT_EQ(w.Execute(u"-test=macaddresstest -verifyinvalidmacpattern=true").result, TEST_RESULT_PASSED);
  w.volume.AddFile(u"\\other.ini", "[Other]\r\nA=.*\r\n"); // no invalid-MAC section: no pattern
  EXPECT_EQ(w.Execute(u"-test=macaddresstest -verifyinvalidmacpattern=true -NetworkFile=other.ini").result,
            TEST_RESULT_PASSED);
  w.volume.AddFile(u"\\bad.ini", "[Invalid_MACPattern]\r\nA=00:1A:2B:.*\r\n");
  o = w.Execute(u"-test=macaddresstest -verifyinvalidmacpattern=true -NetworkFile=bad.ini");
  EXPECT_EQ(o.error, 0x80160402u);
  EXPECT_NE(w.Said().find("Verify MAC \"00:1a:2b:3c:4d:5e\" with regex \"00:1A:2B:.*\", Matched = TRUE"),
            std::string::npos);
  o = w.Execute(u"-test=macaddresstest -verifyinvalidmacpattern=true -NetworkFile=none.ini");
  EXPECT_EQ(o.result, TEST_RESULT_IN_PROGRESS); // the file could not be loaded: the status says why
  EXPECT_EQ(o.status, EFI_NOT_FOUND);
  EXPECT_EQ(w.volume.openHandles, 0);
}

TEST(DetectCableOnFakes, FlagsForCabledNicsCountedByPermanentAddress) {
  NicWorld w;
  FakeNic second{w.fw, 4, 0x57}, third{w.fw, 5, 0x58};
  ASSERT_TRUE(w.Start());
  w.nic.link = false;
  third.link = false;
  second.mode.State = EfiSimpleNetworkStopped; // no driver has started it: the test does, and stops it again
  for (const char* name : {"Network1.flg", "NETWORK.txt", "network-old", "Net1.flg"})
    w.volume.AddFile(u"\\flags\\" + Widen(name), "old");
  w.volume.AddDirectory(u"\\flags\\Network9.flg");
  auto o = w.Execute(u"-test=detectcable");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  EXPECT_EQ(w.volume.Names(u"\\flags"),
            (std::vector<std::u16string>{u"Net1.flg", u"Network9.flg", u"Network2.flg"}));
  EXPECT_EQ(w.volume.Content(u"\\flags\\Network2.flg"), "");
  EXPECT_EQ(second.mode.State, UINT32(EfiSimpleNetworkStopped));
  EXPECT_FALSE(w.mgr.progress.front().asked);

  // A second simple network on the first controller counts once; a NIC that cannot report its
  // media gets no number, so the next one takes it.
  w.fw.AddProtocol(reinterpret_cast<EFI_HANDLE>(0x4444), EFI_DEVICE_PATH_PROTOCOL_GUID,
                   w.nic.devicePath.data());
  w.fw.AddProtocol(reinterpret_cast<EFI_HANDLE>(0x4444), EFI_SIMPLE_NETWORK_PROTOCOL_GUID, &w.nic.snp.p);
  w.nic.link = true;
  second.mode.MediaPresentSupported = FALSE;
  w.mgr.lines.clear();
  o = w.Execute(u"-test=detectcable -flagfiledir=\\a\\b -flagfilename=Nic");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED);
  EXPECT_EQ(w.volume.Names(u"\\a\\b"), (std::vector<std::u16string>{u"Nic1.flg"}));
  std::string said = w.Said();
  EXPECT_NE(said.find("NIC 2 Media Present Status = 0.\r\n"), std::string::npos); // the third NIC
  EXPECT_NE(said.find("This is not a SNP for MAC layer, Status = Success.\r\n"), std::string::npos);
  EXPECT_EQ(said.find("NIC 3 Media"), std::string::npos);

  for (EFI_HANDLE h : {w.nic.handle, second.handle, third.handle, reinterpret_cast<EFI_HANDLE>(0x4444)})
    w.fw.RemoveHandle(h);
  o = w.Execute(u"-test=detectcable");
  EXPECT_EQ(o.error, ERROR_CODE_NO_NIC);
  EXPECT_EQ(w.fw.OpensBy(kImage), 0u);
}

TEST(SpeedTest, ArithmeticAndClasses) {
  // 5000 frames of 1500 + 14 bytes over 500 ms of a 1 GHz counter.
  SpeedFigures f = ComputeNetworkSpeed(5000, 1500, 14, 500000000, 1000000000);
  EXPECT_EQ(f.Bits, 60560000u);
  EXPECT_EQ(f.Milliseconds, 500u);
  EXPECT_EQ(f.Speed, 115u);
  EXPECT_EQ(ComputeNetworkSpeed(5000, 1500, 14, 999999, 1000000000).Speed, 0u); // under a millisecond
  EXPECT_EQ(ComputeNetworkSpeed(5000, 1500, 14, 500000000, 0).Speed, 0u);       // no frequency
  EXPECT_EQ(ComputeNetworkSpeed(5000, 1500, 14, 500000000, 999).Speed, 0u);     // under 1000 ticks per second
  EXPECT_EQ(SpeedClass(30), 10u);
  EXPECT_EQ(SpeedClass(31), 100u);
  EXPECT_EQ(SpeedClass(150), 100u);
  EXPECT_EQ(SpeedClass(200), 100u);
  EXPECT_EQ(SpeedClass(201), 1000u);
}

TEST(SpeedTestOnFakes, ClassesRetriesRepeatsAndTheCalibratedClock) {
  NicWorld w;
  ASSERT_TRUE(w.Start());
  // 12 us per 1514-byte frame: 4999 gaps of 12 us, 59 ms, 978 Mbit/s, class 1000.
  auto o = w.Execute(u"-test=SpeedTest -NetworkSpeed=1000");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  std::string said = w.Said();
  EXPECT_NE(said.find("MediaHeaderSize = 14, MaxPacketSize = 1500\r\n"), std::string::npos);
  EXPECT_NE(said.find("Sent 60560000 bits using 59 ms, speed is 978 Mbit/s\r\n"), std::string::npos) << said;
  EXPECT_NE(said.find("Frames: 5000 of 1514 bytes, first to last completion 59988 us, 83350 frames/s\r\n"),
            std::string::npos);
  EXPECT_NE(said.find("Time-stamp counter: 1000000000 ticks per second"), std::string::npos);
  EXPECT_EQ(w.nic.framesSent, 5000u);

  // Ten times slower: 97 Mbit/s is class 100. Three repeats measure three times; the clock is not
  // measured again.
  w.nic.frameTime = 1200;
  w.mgr.lines.clear();
  o = w.Execute(u"-test=SpeedTest -NetworkSpeed=100 -testrepeats=3 -PacketsCount=1000");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED);
  said = w.Said();
  EXPECT_EQ(said.find("Time-stamp counter"), std::string::npos);
  size_t measured = 0;
  for (size_t at = 0; (at = said.find("speed is 97 Mbit/s", at)) != std::string::npos; ++at)
    ++measured;
  EXPECT_EQ(measured, 3u);

  w.mgr.lines.clear();
  o = w.Execute(u"-test=SpeedTest -NetworkSpeed=101 -retries=1 -testrepeats=3 -PacketsCount=1000");
  EXPECT_EQ(o.result, TEST_RESULT_FAILED);
  EXPECT_EQ(o.error, 0x80160501u);
  said = w.Said();
  EXPECT_NE(said.find("Retry 1 time(s)...\r\n"), std::string::npos);
  EXPECT_NE(said.find("Speed Test failed!\r\n"), std::string::npos);
  EXPECT_EQ(w.nic.framesSent, 5000u + 3000u + 2000u); // a class too low ends the attempt's repeats
  EXPECT_EQ(w.nic.LiveChildren(), 0u);
}

TEST(SpeedTestOnFakes, FramesThatFailOrAreRefusedLeaveNothingBehind) {
  NicWorld w;
  ASSERT_TRUE(w.Start());
  w.Execute(u"-test=SpeedTest"); // the clock is calibrated once, outside the counts below
  size_t pool = w.fw.pool.size(), events = w.fw.events.size();

  w.nic.framesSent = 0; // the knobs count frames from here
  w.nic.failedFrames = {10};
  auto o = w.Execute(u"-test=SpeedTest -PacketsCount=1000");
  EXPECT_EQ(o.status, EFI_ABORTED);
  EXPECT_EQ(o.result, TEST_RESULT_IN_PROGRESS); // the status says why; the result is untouched
  EXPECT_NE(
      w.Said().find("999 of 1000 frames completed, 1 failed (the first, frame 10: No Media), 0 refusals "
                    "sent again\r\nFailed send packets!\r\nFailed get network speed! (Aborted)\r\n"),
      std::string::npos);
  EXPECT_EQ(w.fw.pool.size(), pool);
  EXPECT_EQ(w.fw.events.size(), events);

  // A frame that never completes, then a refusal in the middle of the burst: the refused token is
  // freed by the sender, the pending one comes back cancelled.
  w.nic.failedFrames.clear();
  w.nic.framesSent = 0;
  w.nic.stuckFrames = {3};
  w.nic.refusedFrames = {500};
  o = w.Execute(u"-test=SpeedTest -PacketsCount=1000");
  EXPECT_EQ(o.status, EFI_DEVICE_ERROR);
  EXPECT_NE(w.Said().find("Failed Transmit packet! (Device Error)\r\nFailed send packet! (Device Error)\r\n"),
            std::string::npos);
  EXPECT_EQ(w.nic.framesSent, 499u);
  EXPECT_EQ(w.fw.pool.size(), pool);
  EXPECT_EQ(w.fw.events.size(), events);
  EXPECT_EQ(w.nic.LiveChildren(), 0u);
}

// The firmware refuses frames while the NIC's transmit ring is full: each refused frame is sent again
// once the ring had time to drain, and the figure covers the whole burst.
TEST(SpeedTestOnFakes, FramesRefusedWhileTheRingIsFullAreSentAgain) {
  NicWorld w;
  ASSERT_TRUE(w.Start());
  size_t pool = w.fw.pool.size(), events = w.fw.events.size();
  w.nic.txRingSlots = 300;
  auto o = w.Execute(u"-test=SpeedTest -PacketsCount=1000 -NetworkSpeed=1");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  EXPECT_EQ(w.nic.framesCompleted, 1000u);
  EXPECT_EQ(w.nic.framesRingFull, 3u);
  EXPECT_NE(w.Said().find("Frames: 1000 of 1514 bytes"), std::string::npos);
  EXPECT_NE(w.Said().find("3 refusals while the transmit ring was full, each frame sent again\r\n"),
            std::string::npos);
  EXPECT_EQ(w.fw.pool.size(), pool);
  EXPECT_EQ(w.fw.events.size(), events);

  // The managed network out of transmit buffers refuses the Transmit call itself: the same.
  w.nic.framesCompleted = 0;
  w.nic.txRingFullIsOutOfBuffers = true;
  w.mgr.lines.clear();
  o = w.Execute(u"-test=SpeedTest -PacketsCount=1000 -NetworkSpeed=1");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  EXPECT_EQ(w.nic.framesCompleted, 1000u);
  EXPECT_NE(w.Said().find("3 refusals while the transmit ring was full"), std::string::npos);
  w.nic.txRingFullIsOutOfBuffers = false;

  // A ring that never drains: every frame past it is refused until its refusals run out, and the
  // burst ends as one whose frames failed.
  w.nic.framesCompleted = 0;
  w.nic.txRingSlots = 1;
  w.nic.txRingUsed = 1;
  w.fw.FailUse(0);
  w.nic.txRingDrains = false;
  o = w.Execute(u"-test=SpeedTest -PacketsCount=1000 -NetworkSpeed=1");
  EXPECT_EQ(o.status, EFI_ABORTED);
  EXPECT_NE(w.Said().find("0 of 1000 frames completed, 1000 failed (the first, frame 1: Device Error)"),
            std::string::npos);
  EXPECT_EQ(w.fw.pool.size(), pool);
  EXPECT_EQ(w.fw.events.size(), events);
}

TEST(SpeedTestOnFakes, WithoutCableItPromptsEachCycleUntilTheOperatorAnswers) {
  NicWorld w;
  ASSERT_TRUE(w.Start());
  w.nic.link = false;
  w.mgr.answers = {0, 0, 2}; // two cycles go by, the third report is cancelled
  auto o = w.Execute(u"-test=SpeedTest");
  EXPECT_EQ(o.result, TEST_RESULT_CANCELLED);
  EXPECT_EQ(w.mgr.prompts, (std::vector<UINTN>{25, 25}));
  std::vector<UINTN> asked;
  for (auto& r : w.mgr.progress)
    if (r.asked)
      asked.push_back(r.percent);
  EXPECT_EQ(asked, (std::vector<UINTN>{10, 10, 10}));
  EXPECT_EQ(w.nic.framesSent, 0u);

  w.mgr.answers = {0, 3};
  o = w.Execute(u"-test=SpeedTest -retries=3");
  EXPECT_EQ(o.result, TEST_RESULT_FAILED);
  EXPECT_EQ(o.error, 0x80000001u);
  EXPECT_EQ(w.Said().find("Retry"), std::string::npos); // the attempt never advanced
}

// The shipped message file beside the module, for the menu's and prompts' texts.
void AddMessageFile(NicWorld& w) {
  std::ifstream f(std::string(SOURCE_DIR) + "/support/Wirecheck.msg.xml", std::ios::binary);
  w.volume.AddFile(u"\\Wirecheck.msg.xml", std::string(std::istreambuf_iterator<char>(f), {}));
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
  std::string matrix = ReadSourceFile("vm/wcvm/matrix.py");
  std::string readme = ReadSourceFile("README.md");
  ASSERT_FALSE(catalog.empty() || matrix.empty() || readme.empty())
      << "the source tree is not at " << SOURCE_DIR;
  for (UINTN n = 0; kTestTable[n] != nullptr; ++n) {
    std::string name = Narrow(kTestTable[n]->Name);
    EXPECT_NE(catalog.find("\"" + name + "\""), std::string::npos)
        << name << ": not in unittests/expected/catalog.xml";
    EXPECT_NE(matrix.find("(\"" + name + "\", \"-test=" + name), std::string::npos)
        << name << ": no call in vm/wcvm/matrix.py's CALLS";
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
