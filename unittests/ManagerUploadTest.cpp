// The manager's upload: the names results are sent under, and one PUT through a fake of the
// firmware's HTTP client that answers as a server would, refuses, or never answers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/Memory.h"
#include "fakes/FakeFirmware.h"
#include "manager/Upload.h"

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

// ---- A fake HTTP client ----

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
  // How the server behaves.
  EFI_STATUS configure = EFI_SUCCESS;
  EFI_STATUS request = EFI_SUCCESS; // what Request returns (a refused connection, say)
  bool answers = true;              // the response token completes
  EFI_HTTP_STATUS_CODE code = 4;    // 201 Created
  EFI_STATUS answerStatus = EFI_SUCCESS;
  // What it saw.
  std::string sentHeaders;
  std::string sentBody;
  std::u16string url;
  int cancels = 0;
  EFI_HTTP_TOKEN* pending = nullptr;
};
FakeHttp* gHttp = nullptr;

EFI_STATUS EFIAPI HttpCreate(EFI_SERVICE_BINDING_PROTOCOL*, EFI_HANDLE* child) {
  static uintptr_t next = 0xA00000;
  auto h = reinterpret_cast<EFI_HANDLE>(next += 16);
  FakeFirmware::current->AddProtocol(h, EFI_HTTP_PROTOCOL_GUID, &gHttp->http);
  gHttp->children.push_back(h);
  *child = h;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI HttpDestroy(EFI_SERVICE_BINDING_PROTOCOL*, EFI_HANDLE child) {
  if (std::erase(gHttp->children, child) == 0)
    return EFI_INVALID_PARAMETER;
  FakeFirmware::current->RemoveHandle(child);
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI HttpConfigure(EFI_HTTP_PROTOCOL*, EFI_HTTP_CONFIG_DATA* config) {
  EXPECT_TRUE(config->IPv4Node->UseDefaultAddress);
  return gHttp->configure;
}
EFI_STATUS EFIAPI HttpRequest(EFI_HTTP_PROTOCOL*, EFI_HTTP_TOKEN* token) {
  if (EFI_ERROR(gHttp->request))
    return gHttp->request;
  EFI_HTTP_MESSAGE* m = token->Message;
  gHttp->url = m->Data.Request->Url;
  for (UINTN i = 0; i < m->HeaderCount; ++i)
    gHttp->sentHeaders += std::string(m->Headers[i].FieldName) + ": " + m->Headers[i].FieldValue + "\n";
  gHttp->sentBody.assign(static_cast<const char*>(m->Body), m->BodyLength);
  token->Status = EFI_SUCCESS;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI HttpResponse(EFI_HTTP_PROTOCOL*, EFI_HTTP_TOKEN* token) {
  if (!gHttp->answers) {
    gHttp->pending = token;
    return EFI_SUCCESS;
  }
  token->Message->Data.Response->StatusCode = gHttp->code;
  // The firmware hands the answer's headers over in pool memory the caller frees.
  auto* headers = static_cast<EFI_HTTP_HEADER*>(AllocateZeroPool(sizeof(EFI_HTTP_HEADER)));
  if (headers == nullptr)
    return EFI_OUT_OF_RESOURCES;
  headers[0].FieldName = static_cast<CHAR8*>(AllocateCopyPool(7, "Server"));
  headers[0].FieldValue = static_cast<CHAR8*>(AllocateCopyPool(6, "nginx"));
  token->Message->Headers = headers;
  token->Message->HeaderCount = 1;
  token->Status = gHttp->answerStatus;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI HttpCancel(EFI_HTTP_PROTOCOL*, EFI_HTTP_TOKEN* token) {
  ++gHttp->cancels;
  if (token == gHttp->pending)
    gHttp->pending = nullptr;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI HttpPoll(EFI_HTTP_PROTOCOL*) {
  return EFI_SUCCESS;
}

struct UploadOnFakes : ::testing::Test {
  FakeFirmware fw;
  FakeHttp fake;
  EFI_HANDLE nic = reinterpret_cast<EFI_HANDLE>(0xB00000);
  void SetUp() override {
    gHttp = &fake;
    fw.AddProtocol(nic, EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID, &fake.sb);
  }
  void TearDown() override {
    EXPECT_TRUE(fake.children.empty()); // the child is destroyed on every path
    EXPECT_EQ(fake.pending, nullptr);   // and no token is left for the firmware to write into
    gHttp = nullptr;
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

} // namespace
