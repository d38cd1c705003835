// The manager's upload: the names results are sent under, and one PUT through a fake of the
// firmware's HTTP client that answers as a server would, refuses, or never answers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/Memory.h"
#include "base/String.h"
#include "fakes/FakeFirmware.h"
#include "manager/Upload.h"

#include <cstddef>
#include <map>

namespace {

std::u16string Text(const CHAR16* s) {
  return std::u16string(s);
}

TEST(ManagerUpload, MachineNamesAndFolders) {
  // SMBIOS keeps the UUID's first three fields little-endian.
  const UINT8 uuid[16] = {0x01, 0x00, 0x1d, 0x5c, 0x02, 0x00, 0x03, 0x40,
                          0x80, 0x04, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  CHAR16 name[kMachineChars];
  ASSERT_TRUE(FormatSystemUuid(uuid, name, sizeof(name)));
  EXPECT_EQ(Text(name), u"5c1d0001-0002-4003-8004-aabbccddeeff");
  const UINT8 unset[16] = {};
  UINT8 ones[16];
  std::memset(ones, 0xFF, sizeof(ones));
  EXPECT_FALSE(FormatSystemUuid(unset, name, sizeof(name)));
  EXPECT_FALSE(FormatSystemUuid(ones, name, sizeof(name)));
  CHAR16 tiny[10];
  EXPECT_FALSE(FormatSystemUuid(uuid, tiny, sizeof(tiny)));

  EFI_TIME start = {};
  start.Year = 2026, start.Month = 11, start.Day = 5, start.Hour = 7, start.Minute = 8, start.Second = 9;
  CHAR16 folder[kUrlChars];
  ASSERT_TRUE(UploadFolder(u"http://10.0.0.1/results", u"m1", start, 42, folder, sizeof(folder)));
  EXPECT_EQ(Text(folder), u"http://10.0.0.1/results/m1/20261105-070809-00042/");
  ASSERT_TRUE(UploadFolder(u"http://10.0.0.1/results/", u"m1", start, 42, folder, sizeof(folder)));
  EXPECT_EQ(Text(folder), u"http://10.0.0.1/results/m1/20261105-070809-00042/"); // no doubled slash
  CHAR16 small[20];
  EXPECT_FALSE(UploadFolder(u"http://10.0.0.1/results", u"m1", start, 42, small, sizeof(small)));
}

TEST(ManagerUpload, HostHeaderAndStatusNumbers) {
  CHAR8 host[32];
  ASSERT_TRUE(UrlAuthority(u"http://10.0.0.1:8080/results/x", host, sizeof(host)));
  EXPECT_STREQ(host, "10.0.0.1:8080");
  ASSERT_TRUE(UrlAuthority(u"https://fleet.example/", host, sizeof(host)));
  EXPECT_STREQ(host, "fleet.example");
  EXPECT_FALSE(UrlAuthority(u"ftp://10.0.0.1/x", host, sizeof(host)));
  EXPECT_FALSE(UrlAuthority(u"http:///x", host, sizeof(host)));
  EXPECT_FALSE(UrlAuthority(u"http://a b/x", host, sizeof(host)));
  CHAR8 four[4];
  EXPECT_FALSE(UrlAuthority(u"http://10.0.0.1/", four, sizeof(four)));

  EXPECT_EQ(HttpStatusNumber(4), 201u);
  EXPECT_EQ(HttpStatusNumber(7), 204u);
  EXPECT_EQ(HttpStatusNumber(20), 403u);
  EXPECT_EQ(HttpStatusNumber(41), 308u); // added last to the firmware's list
  EXPECT_EQ(HttpStatusNumber(0), 0u);    // a code the firmware does not name
  EXPECT_EQ(HttpStatusNumber(42), 0u);
  EXPECT_EQ(HttpStatusNumber(~0u), 0u);

  // The network's statuses by name, where the module's own table has none.
  CHAR16 name[40];
  UploadStatusName(EFI_CONNECTION_RESET, name, sizeof(name));
  EXPECT_EQ(Text(name), u"Connection Reset");
  UploadStatusName(EFI_HTTP_ERROR, name, sizeof(name));
  EXPECT_EQ(Text(name), u"HTTP error");
  UploadStatusName(EFI_TIMEOUT, name, sizeof(name));
  EXPECT_EQ(Text(name), u"Time out");
}

// ---- A fake HTTP client, one per NIC ----

EFI_STATUS EFIAPI HttpCreate(EFI_SERVICE_BINDING_PROTOCOL*, EFI_HANDLE* child);
EFI_STATUS EFIAPI HttpDestroy(EFI_SERVICE_BINDING_PROTOCOL*, EFI_HANDLE child);
EFI_STATUS EFIAPI HttpConfigure(EFI_HTTP_PROTOCOL*, EFI_HTTP_CONFIG_DATA* config);
EFI_STATUS EFIAPI HttpRequest(EFI_HTTP_PROTOCOL*, EFI_HTTP_TOKEN* token);
EFI_STATUS EFIAPI HttpCancel(EFI_HTTP_PROTOCOL*, EFI_HTTP_TOKEN* token);
EFI_STATUS EFIAPI HttpResponse(EFI_HTTP_PROTOCOL*, EFI_HTTP_TOKEN* token);
EFI_STATUS EFIAPI HttpPoll(EFI_HTTP_PROTOCOL*);

struct FakeHttp {
  EFI_SERVICE_BINDING_PROTOCOL sb = {HttpCreate, HttpDestroy};
  EFI_HTTP_PROTOCOL http = {nullptr, HttpConfigure, HttpRequest, HttpCancel, HttpResponse, HttpPoll};
  std::vector<EFI_HANDLE> children;
  // How the server behaves, as this NIC reaches it.
  EFI_STATUS configure = EFI_SUCCESS;
  EFI_STATUS request = EFI_SUCCESS; // what Request returns (a refused connection, say)
  bool answers = true;              // the response token completes
  EFI_HTTP_STATUS_CODE code = 4;    // 201 Created
  EFI_STATUS answerStatus = EFI_SUCCESS;
  EFI_STATUS cancelStatus = EFI_SUCCESS; // Not Found: the firmware does not give the token back
  // What it saw.
  std::string sentHeaders;
  std::string sentBody;
  std::u16string url;
  std::vector<std::u16string> urls;
  int cancels = 0;
  int puts = 0;
  EFI_HTTP_TOKEN* pending = nullptr;

  static FakeHttp* Of(EFI_SERVICE_BINDING_PROTOCOL* sb) {
    return reinterpret_cast<FakeHttp*>(reinterpret_cast<char*>(sb) - offsetof(FakeHttp, sb));
  }
  static FakeHttp* Of(EFI_HTTP_PROTOCOL* http) {
    return reinterpret_cast<FakeHttp*>(reinterpret_cast<char*>(http) - offsetof(FakeHttp, http));
  }
};

EFI_STATUS EFIAPI HttpCreate(EFI_SERVICE_BINDING_PROTOCOL* sb, EFI_HANDLE* child) {
  static uintptr_t next = 0xA00000;
  auto h = reinterpret_cast<EFI_HANDLE>(next += 16);
  FakeFirmware::current->AddProtocol(h, EFI_HTTP_PROTOCOL_GUID, &FakeHttp::Of(sb)->http);
  FakeHttp::Of(sb)->children.push_back(h);
  *child = h;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI HttpDestroy(EFI_SERVICE_BINDING_PROTOCOL* sb, EFI_HANDLE child) {
  if (std::erase(FakeHttp::Of(sb)->children, child) == 0)
    return EFI_INVALID_PARAMETER;
  FakeFirmware::current->RemoveHandle(child);
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI HttpConfigure(EFI_HTTP_PROTOCOL* http, EFI_HTTP_CONFIG_DATA* config) {
  EXPECT_TRUE(config->IPv4Node->UseDefaultAddress);
  return FakeHttp::Of(http)->configure;
}
EFI_STATUS EFIAPI HttpRequest(EFI_HTTP_PROTOCOL* http, EFI_HTTP_TOKEN* token) {
  FakeHttp* f = FakeHttp::Of(http);
  ++f->puts;
  if (EFI_ERROR(f->request))
    return f->request;
  EFI_HTTP_MESSAGE* m = token->Message;
  f->url = m->Data.Request->Url;
  f->urls.push_back(f->url);
  f->sentHeaders.clear();
  for (UINTN i = 0; i < m->HeaderCount; ++i)
    f->sentHeaders += std::string(m->Headers[i].FieldName) + ": " + m->Headers[i].FieldValue + "\n";
  f->sentBody.assign(static_cast<const char*>(m->Body), m->BodyLength);
  token->Status = EFI_SUCCESS;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI HttpResponse(EFI_HTTP_PROTOCOL* http, EFI_HTTP_TOKEN* token) {
  FakeHttp* f = FakeHttp::Of(http);
  if (!f->answers) {
    f->pending = token;
    return EFI_SUCCESS;
  }
  token->Message->Data.Response->StatusCode = f->code;
  // The firmware hands the answer's headers over in pool memory the caller frees.
  auto* headers = static_cast<EFI_HTTP_HEADER*>(AllocateZeroPool(sizeof(EFI_HTTP_HEADER)));
  if (headers == nullptr)
    return EFI_OUT_OF_RESOURCES;
  headers[0].FieldName = static_cast<CHAR8*>(AllocateCopyPool(7, "Server"));
  headers[0].FieldValue = static_cast<CHAR8*>(AllocateCopyPool(6, "nginx"));
  token->Message->Headers = headers;
  token->Message->HeaderCount = 1;
  token->Status = f->answerStatus;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI HttpCancel(EFI_HTTP_PROTOCOL* http, EFI_HTTP_TOKEN* token) {
  FakeHttp* f = FakeHttp::Of(http);
  ++f->cancels;
  if (EFI_ERROR(f->cancelStatus))
    return f->cancelStatus;
  if (token == f->pending) {
    f->pending = nullptr;
    token->Status = EFI_ABORTED;
  }
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI HttpPoll(EFI_HTTP_PROTOCOL*) {
  return EFI_SUCCESS;
}

struct UploadOnFakes : ::testing::Test {
  FakeFirmware fw;
  FakeHttp fake;
  EFI_HANDLE nic = reinterpret_cast<EFI_HANDLE>(0xB00000);
  void SetUp() override { fw.AddProtocol(nic, EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID, &fake.sb); }
  void TearDown() override {
    EXPECT_TRUE(fake.children.empty()); // the child is destroyed on every path
    EXPECT_EQ(fake.pending, nullptr);   // and no token is left for the firmware to write into
    EXPECT_EQ(ExchangesLeftToFirmware(), 0u);
  }
  PutOutcome Put(const char* body = "RESULT result=Passed\r\n") {
    return HttpPut(nic, u"http://10.99.0.1:8080/results/m/r/results.txt", "text/plain", body,
                   std::strlen(body), 10000);
  }
};

TEST_F(UploadOnFakes, AnAcceptedPutSendsTheFileWithItsHeaders) {
  PutOutcome o = Put();
  EXPECT_EQ(o.Status, EFI_SUCCESS);
  EXPECT_TRUE(o.Answered);
  EXPECT_EQ(o.HttpCode, 201u);
  EXPECT_EQ(fake.url, u"http://10.99.0.1:8080/results/m/r/results.txt");
  EXPECT_EQ(fake.sentBody, "RESULT result=Passed\r\n");
  EXPECT_NE(fake.sentHeaders.find("Host: 10.99.0.1:8080\n"), std::string::npos);
  EXPECT_NE(fake.sentHeaders.find("Content-Length: 22\n"), std::string::npos);
  EXPECT_NE(fake.sentHeaders.find("Content-Type: text/plain\n"), std::string::npos);

  // An empty file is still a body the firmware accepts, of length 0.
  fake.sentHeaders.clear();
  EXPECT_EQ(Put("").Status, EFI_SUCCESS);
  EXPECT_NE(fake.sentHeaders.find("Content-Length: 0\n"), std::string::npos);
}

TEST_F(UploadOnFakes, RefusalsCarryTheirCodeAndNothingElsePasses) {
  fake.code = 20; // 403
  fake.answerStatus = EFI_HTTP_ERROR;
  PutOutcome o = Put();
  EXPECT_EQ(o.Status, EFI_HTTP_ERROR);
  EXPECT_TRUE(o.Answered);
  EXPECT_EQ(o.HttpCode, 403u);

  fake.code = 0; // 507: not in the firmware's list
  o = Put();
  EXPECT_EQ(o.Status, EFI_HTTP_ERROR);
  EXPECT_TRUE(o.Answered);
  EXPECT_EQ(o.HttpCode, 0u);

  fake.code = 10; // 300 Multiple Choices, which the firmware does not call an error
  fake.answerStatus = EFI_SUCCESS;
  EXPECT_EQ(Put().Status, EFI_HTTP_ERROR);
}

TEST_F(UploadOnFakes, AServerThatNeverAnswersEndsInATimeoutAndACancel) {
  fake.answers = false;
  PutOutcome o = Put();
  EXPECT_EQ(o.Status, EFI_TIMEOUT);
  EXPECT_FALSE(o.Answered);
  EXPECT_EQ(fake.cancels, 1);
}

TEST_F(UploadOnFakes, NoConnectionOrNoClientIsNotAnAnswer) {
  fake.request = EFI_ACCESS_DENIED; // what the firmware's TCP says to a refused connection, say
  PutOutcome o = Put();
  EXPECT_EQ(o.Status, EFI_ACCESS_DENIED);
  EXPECT_FALSE(o.Answered);
  fake.request = EFI_SUCCESS;
  fake.configure = EFI_NO_MAPPING;
  EXPECT_EQ(Put().Status, EFI_NO_MAPPING);
  EXPECT_EQ(HttpPut(reinterpret_cast<EFI_HANDLE>(0xC00000), u"http://h/x", "text/plain", "", 0, 10).Status,
            EFI_UNSUPPORTED);
  EXPECT_EQ(HttpPut(nic, u"file://x", "text/plain", "", 0, 10).Status, EFI_INVALID_PARAMETER);
}

TEST_F(UploadOnFakes, WhatAFailedHttpsUploadSaysOfTheFirmwaresTls) {
  PutOutcome noAnswer;
  noAnswer.Status = EFI_ABORTED; // the firmware's word for a failed handshake
  EXPECT_NE(std::u16string(HttpsTrouble(u"https://10.0.0.1/r", noAnswer)).find(u"the TLS handshake failed"),
            std::u16string::npos);
  EXPECT_EQ(HttpsTrouble(u"http://10.0.0.1/r", noAnswer), nullptr); // plain HTTP has no handshake
  noAnswer.Status = EFI_NOT_FOUND; // and for a missing TlsCaCertificate variable
  EXPECT_NE(std::u16string(HttpsTrouble(u"https://10.0.0.1/r", noAnswer)).find(u"no certificate authority"),
            std::u16string::npos);
  const EFI_GUID tlsCa = {0xFD2340D0, 0x3DAB, 0x4349, {0xA6, 0xC7, 0x3B, 0x4F, 0x12, 0xB4, 0x8E, 0xAE}};
  fw.SetVariable(u"TlsCaCertificate", tlsCa, u"x"); // enrolled: Not Found then means something else
  EXPECT_EQ(HttpsTrouble(u"https://10.0.0.1/r", noAnswer), nullptr);
  PutOutcome refused;
  refused.Status = EFI_HTTP_ERROR;
  refused.Answered = true;
  EXPECT_EQ(HttpsTrouble(u"https://10.0.0.1/r", refused), nullptr);
}

TEST_F(UploadOnFakes, EveryFailingFirmwareCallLeavesNothingBehind) {
  for (uint64_t n = 1; n < 40; ++n) {
    fw.FailUse(n);
    PutOutcome o = Put();
    if (!EFI_ERROR(o.Status)) {
      EXPECT_EQ(o.HttpCode, 201u);
    }
    EXPECT_TRUE(fake.children.empty()) << "failing use " << n;
  }
  fw.FailUse(0);
}

TEST_F(UploadOnFakes, ATokenTheFirmwareWillNotCancelIsLeftWhereALateCompletionFindsIt) {
  fake.answers = false;
  fake.cancelStatus = EFI_NOT_FOUND; // as EDK2 answers for a token its TCP still holds
  EXPECT_EQ(Put().Status, EFI_TIMEOUT);
  ASSERT_NE(fake.pending, nullptr);
  EXPECT_EQ(ExchangesLeftToFirmware(), 1u);
  // The late completion writes into pool that is still allocated and signals an event still open.
  EFI_HTTP_TOKEN* late = fake.pending;
  bool inPool = false;
  for (const auto& [block, size] : fw.pool)
    inPool = inPool || (reinterpret_cast<char*>(late) >= static_cast<char*>(block) &&
                        reinterpret_cast<char*>(late + 1) <= static_cast<char*>(block) + size);
  EXPECT_TRUE(inPool);
  EXPECT_EQ(fw.events.count(late->Event), 1u);
  late->Status = EFI_ABORTED;
  fw.bs.SignalEvent(late->Event);
  fake.pending = nullptr;
  ReleaseFinishedExchanges(); // the next PUT does this too
  EXPECT_EQ(ExchangesLeftToFirmware(), 0u);
  EXPECT_EQ(fw.events.count(late->Event), 0u);
  EXPECT_TRUE(fw.pool.empty());
}

// ---- The upload round ----

struct RoundOnFakes : UploadOnFakes {
  FakeHttp second; // another NIC that reaches the server
  EFI_HANDLE nic2 = reinterpret_cast<EFI_HANDLE>(0xB00100);
  std::map<std::u16string, std::string> files = {{u"results.txt", "RESULT result=Passed\r\n"},
                                                 {u"results.json", "{}"}};
  UploadState state = {};
  void SetUp() override {
    self = this;
    UploadOnFakes::SetUp();
    fw.AddProtocol(nic2, EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID, &second.sb);
    StrCopy(state.Folder, sizeof(state.Folder), u"http://10.99.0.1/results/m/r/");
  }
  void TearDown() override {
    EXPECT_TRUE(second.children.empty());
    UploadOnFakes::TearDown();
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
