// The checks of one NIC on the fake firmware: the PCI side (root bridges, IRQ and rated speed), the MAC
// address test, cable detection with its flag files, and the speed test's arithmetic, classes and frames.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "unittests/NicWorld.h"
#include "tests/TestTable.h"
#include "base/Globals.h"
#include "fakes/FakeMachine.h"
#include "nic/Pci.h"
#include "report/Output.h"
#include "report/Results.h"
#include "tests/SpeedTest.h"

namespace {

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

} // namespace
