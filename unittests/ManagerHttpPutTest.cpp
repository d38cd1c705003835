// One HTTP PUT of the manager's uploads: the names results are sent under, and the PUT through a fake
// of the firmware's HTTP client that answers as a server would, refuses, or never answers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "base/String.h"
#include "manager/HttpPut.h"
#include "unittests/FakeHttp.h"

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
  HttpStatusName(EFI_CONNECTION_RESET, name, sizeof(name));
  EXPECT_EQ(Text(name), u"Connection Reset");
  HttpStatusName(EFI_HTTP_ERROR, name, sizeof(name));
  EXPECT_EQ(Text(name), u"HTTP error");
  HttpStatusName(EFI_TIMEOUT, name, sizeof(name));
  EXPECT_EQ(Text(name), u"Time out");
}

TEST_F(HttpOnFakes, AnAcceptedPutSendsTheFileWithItsHeaders) {
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
  EXPECT_FALSE(fake.ipv6);

  // A server named by its IPv6 address: the child goes over IPv6, the Host header keeps the brackets.
  fake.sentHeaders.clear();
  EXPECT_EQ(HttpPut(nic, u"http://[fd99::1]/results/m/r/results.txt", "text/plain", "x", 1, 10000).Status,
            EFI_SUCCESS);
  EXPECT_TRUE(fake.ipv6);
  EXPECT_NE(fake.sentHeaders.find("Host: [fd99::1]\n"), std::string::npos) << fake.sentHeaders;
}

TEST_F(HttpOnFakes, RefusalsCarryTheirCodeAndNothingElsePasses) {
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

TEST_F(HttpOnFakes, AServerThatNeverAnswersEndsInATimeoutAndACancel) {
  fake.answers = false;
  PutOutcome o = Put();
  EXPECT_EQ(o.Status, EFI_TIMEOUT);
  EXPECT_FALSE(o.Answered);
  EXPECT_EQ(fake.cancels, 1);
}

TEST_F(HttpOnFakes, NoConnectionOrNoClientIsNotAnAnswer) {
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

TEST_F(HttpOnFakes, WhatAFailedHttpsUploadSaysOfTheFirmwaresTls) {
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

TEST_F(HttpOnFakes, EveryFailingFirmwareCallLeavesNothingBehind) {
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

TEST_F(HttpOnFakes, ATokenTheFirmwareWillNotCancelIsLeftWhereALateCompletionFindsIt) {
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

} // namespace
