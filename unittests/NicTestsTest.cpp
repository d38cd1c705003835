// The NIC tests' shared steps on the fake firmware: the test table's consistency, the choice of a
// NIC, the attempts of the NIC tests, and the media read with its wait for a cable.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "frame/Module.h"
#include "unittests/NicWorld.h"
#include "tests/TestTable.h"
#include "base/Globals.h"
#include "frame/TestModule.h"
#include "nic/MediaCheck.h"
#include "nic/NicAccess.h"
#include "report/Output.h"
#include "report/Results.h"
#include "report/Attempts.h"

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

} // namespace
