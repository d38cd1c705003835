// The manager's upload round on fakes of the firmware's HTTP client, one per NIC: the choice of NIC, a
// server that comes back, the round's bound on the firmware's timer, and every firmware call failed.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "base/Memory.h"
#include "base/String.h"
#include "manager/Upload.h"
#include "unittests/FakeHttp.h"

namespace {

struct RoundOnFakes : HttpOnFakes {
  FakeHttp second; // another NIC that reaches the server
  EFI_HANDLE nic2 = reinterpret_cast<EFI_HANDLE>(0xB00100);
  std::map<std::u16string, std::string> files = {{u"results.txt", "RESULT result=Passed\r\n"},
                                                 {u"results.json", "{}"}};
  UploadState state = {};
  void SetUp() override {
    self = this;
    HttpOnFakes::SetUp();
    fw.AddProtocol(nic2, EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID, &second.sb);
    StrCopy(state.Folder, sizeof(state.Folder), u"http://10.99.0.1/results/m/r/");
  }
  void TearDown() override {
    EXPECT_TRUE(second.children.empty());
    HttpOnFakes::TearDown();
  }
  static RoundOnFakes* self;
  static EFI_STATUS Read(void*, const CHAR16* name, void** data, UINTN* size) {
    auto& files = self->files;
    auto it = files.find(name);
    if (it == files.end())
      return EFI_NOT_FOUND;
    *data = AllocateCopyPool(it->second.size() + 1, it->second.c_str());
    *size = it->second.size();
    return *data != nullptr ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
  }
  UploadReport Round() { return UploadRound(state, {this, Read}); }
};

RoundOnFakes* RoundOnFakes::self = nullptr;

TEST_F(RoundOnFakes, AServiceThatStopsAnsweringGivesWayToAnotherThatReachesTheServer) {
  UploadReport r = Round();
  EXPECT_EQ(r.Stopped, nullptr);
  EXPECT_EQ(r.Sent, 2u);
  EXPECT_EQ(state.Service, nic);
  EXPECT_EQ(fake.urls.back(), u"http://10.99.0.1/results/m/r/results.json");
  // The first NIC's link drops: the round goes on through the second, and stays with it.
  fake.request = EFI_NO_MAPPING;
  r = Round();
  EXPECT_EQ(r.Stopped, nullptr);
  EXPECT_EQ(state.Service, nic2);
  EXPECT_EQ(second.puts, 2);
  int firstTries = fake.puts;
  Round();
  EXPECT_EQ(fake.puts, firstTries); // the one that answered is tried first
  // A refusal is an answer: no other NIC would be treated differently by the server.
  second.code = 20; // 403
  second.answerStatus = EFI_HTTP_ERROR;
  r = Round();
  ASSERT_NE(r.Stopped, nullptr);
  EXPECT_EQ(r.Outcome.HttpCode, 403u);
  EXPECT_EQ(fake.puts, firstTries);
  EXPECT_TRUE(state.Failed);
  // The server comes back: the next round sends everything.
  second.code = 4;
  second.answerStatus = EFI_SUCCESS;
  r = Round();
  EXPECT_EQ(r.Stopped, nullptr);
  EXPECT_FALSE(state.Failed);
}

TEST_F(RoundOnFakes, TheBoundHoldsOnTheFirmwaresTimerWithoutARealTimeClock) {
  fw.clockWorks = false; // GetTime fails: nothing may depend on it
  FakeHttp third;
  fw.AddProtocol(reinterpret_cast<EFI_HANDLE>(0xB00200), EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID, &third.sb);
  fake.answers = second.answers = third.answers = false;
  UploadHost host = {nullptr, [](void*, const CHAR16* name, void** data, UINTN* size) {
                       return name == std::u16string(u"results.txt") ? Read(nullptr, name, data, size)
                                                                     : EFI_NOT_FOUND;
                     }};
  UINT64 start = fw.now;
  UploadReport r = UploadRound(state, host);
  // Three services, three tries of 10 s each and the pauses between them would be 93 s for one file:
  // the bound's timer ends the last wait, and the round ends at its 90 s.
  EXPECT_NE(r.Stopped, nullptr);
  EXPECT_EQ(r.Outcome.Status, EFI_TIMEOUT);
  UINT64 seconds = (fw.now - start) / 10000000;
  EXPECT_EQ(seconds, 90u);
  EXPECT_TRUE(r.OutOfTime);
  CHAR16 line[600];
  UploadFailureLine(state, r, u"\\EFI\\BOOT", line, sizeof(line));
  EXPECT_NE(std::u16string(line).find(u"bound of 90 seconds"), std::u16string::npos);
  EXPECT_TRUE(third.children.empty());
}

TEST_F(RoundOnFakes, AUrlTooLongForTheNamesUnderItIsRefusedNotCut) {
  EFI_TIME start = {};
  start.Year = 2026, start.Month = 1, start.Day = 2;
  std::u16string base = u"http://10.99.0.1/";
  // The longest base that still leaves room for the machine, the run and "results.json".
  CHAR16 folder[kUrlChars];
  const CHAR16* machine = u"5c1d0001-0002-4003-8004-aabbccddeeff";
  size_t room = kUrlChars - 1 - (36 + 1 + 21 + 1) - kUploadNameChars;
  // (A text that fills the buffer to its last character cannot be told from a cut one.)
  std::u16string fits = base + std::u16string(room - base.size() - 2, u'a');
  ASSERT_TRUE(UploadFolder(fits.c_str(), machine, start, 1, folder, sizeof(folder)));
  EXPECT_EQ(std::u16string(folder).size() + kUploadNameChars, kUrlChars - 2);
  std::u16string longer = fits + u"b";
  EXPECT_FALSE(UploadFolder(longer.c_str(), machine, start, 1, folder, sizeof(folder)));
}

TEST_F(RoundOnFakes, EveryFailingFirmwareCallEndsTheRoundWithNothingLeftBehind) {
  for (uint64_t n = 1; n < 80; ++n) {
    fw.FailUse(n);
    UploadReport r = Round();
    EXPECT_TRUE(r.Stopped == nullptr || EFI_ERROR(r.Outcome.Status)) << "failing use " << n;
    EXPECT_TRUE(fake.children.empty() && second.children.empty()) << "failing use " << n;
  }
  fw.FailUse(0);
  EXPECT_TRUE(fw.pool.empty());
}

} // namespace
