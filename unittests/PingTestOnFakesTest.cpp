// pingtest end to end through the module's protocol on the fake firmware's network stack: a pass that
// releases everything, the firmware's DHCP started again, the stored configuration rewritten through HII,
// and what it says of a missing cable, server, NIC or network stack.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "frame/Module.h"
#include "unittests/NicWorld.h"
#include "base/Globals.h"
#include "frame/TestModule.h"
#include "fakes/FakeMachine.h"
#include "nic/HiiConfig.h"
#include "nic/NicConfig.h"
#include "nic/Inventory.h"
#include "report/Results.h"
#include "uefi/protocol/Rng.h"

namespace {

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

} // namespace
