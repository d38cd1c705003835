// interactivenetworktest end to end through the module's protocol on the fake firmware: the gateway and
// DHCP paths, the cable checks and prompts, the NIC menu, and the controller names it shows.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "frame/Module.h"
#include "unittests/NicWorld.h"
#include "base/Globals.h"
#include "frame/TestModule.h"
#include "fakes/FakeMachine.h"
#include "nic/Inventory.h"
#include "report/Results.h"

namespace {

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
