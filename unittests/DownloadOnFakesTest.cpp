// downloadtest on the fake firmware: what each kind of trouble on the way to the file comes to, and
// that nothing the test made is left behind.
#include <gtest/gtest.h>

#include "base/Sha256.h"
#include "ping/HttpExchange.h"
#include "unittests/NicWorld.h"

namespace {

constexpr const char16_t* kUrl = u"-test=downloadtest -url=http://files.example/image.bin";

struct DownloadOnFakes : ::testing::Test {
  NicWorld w;
  void SetUp() override {
    w.web = std::make_unique<FakeWeb>(w.nic);
    ASSERT_TRUE(w.Start());
  }
  void TearDown() override {
    EXPECT_EQ(w.web->LiveChildren(), 0u); // every HTTP and DNS child destroyed
    EXPECT_FALSE(w.web->TokenPending());
    EXPECT_EQ(ExchangesLeftToFirmware(), 0u);
  }
  NicWorld::Outcome Run(const std::u16string& options) { return w.Execute(options); }
};

TEST_F(DownloadOnFakes, PassesWithTheDigestAndSaysTheFigure) {
  auto o = Run(kUrl + (u" -sha256=" + DigestText(w.web->body)));
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  std::string said = w.Said();
  EXPECT_NE(said.find("files.example is 10.0.2.2 (DNS server 10.0.2.3"), std::string::npos) << said;
  EXPECT_NE(said.find("Received 300000 of 300000 bytes (100%)"), std::string::npos) << said;
  EXPECT_NE(said.find("speed is "), std::string::npos) << said;
  EXPECT_EQ(w.web->requestedUrls, std::vector<std::string>{"http://files.example/image.bin"});
  // An address needs no lookup.
  o = Run(u"-test=downloadtest -url=http://10.0.2.2/image.bin");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED);
  EXPECT_EQ(w.web->lookedUp.size(), 1u);
}

TEST_F(DownloadOnFakes, TheFirmwaresHashIsUsedWhereItHasOne) {
  w.web->OfferHash2();
  auto o = Run(kUrl + (u" -sha256=" + DigestText(w.web->body)));
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  EXPECT_NE(w.Said().find("SHA-256 by the firmware's hash protocol"), std::string::npos) << w.Said();
  EXPECT_GT(w.web->hashUpdates, 0u);
  o = Run(kUrl + (u" -sha256=" + std::u16string(64, u'0')));
  EXPECT_EQ(o.error, 0x8016090Au) << w.Said();
  // A hash that fails half way: the file came whole, the digest is lost.
  w.web->hashUpdate = EFI_DEVICE_ERROR;
  o = Run(kUrl + (u" -sha256=" + DigestText(w.web->body)));
  EXPECT_EQ(o.error, ERROR_CODE_SOFTWARE) << w.Said();
  EXPECT_NE(w.Said().find("hash protocol failed (Device Error)"), std::string::npos) << w.Said();
  // Without -sha256 no child is made.
  w.web->hashUpdates = 0;
  o = Run(kUrl);
  EXPECT_EQ(o.result, TEST_RESULT_PASSED);
  EXPECT_EQ(w.web->hashUpdates, 0u);
}

TEST_F(DownloadOnFakes, AServerByItsIpv6AddressIsReachedOverIpv6) {
  auto o = Run(u"-test=downloadtest -url=http://[fec0::2]/image.bin");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  EXPECT_TRUE(w.web->overIpv6);
  EXPECT_TRUE(w.web->lookedUp.empty());
  // Without a router the NIC has no address to reach it from.
  w.ipv6.router = false;
  o = Run(u"-test=downloadtest -url=http://[fec0::2]/image.bin");
  EXPECT_EQ(o.error, 0x80160904u) << w.Said();
  EXPECT_NE(w.Said().find("No router advertisement"), std::string::npos) << w.Said();
}

TEST_F(DownloadOnFakes, EachTroubleHasItsCode) {
  struct Case {
    const char* what;
    void (*arrange)(NicWorld&);
    std::u16string options;
    UINTN code;
    const char* logged;
  } cases[] = {
      {"wrong digest", nullptr, kUrl + std::u16string(u" -sha256=") + std::u16string(64, u'0'), 0x8016090A,
       "SHA-256 wanted 0000"},
      {"unknown name", nullptr, u"-test=downloadtest -url=http://nosuch.example/x", 0x80160905,
       "answered that nosuch.example does not exist"},
      {"no DNS server", [](NicWorld& w) { w.nic.dnsServers.clear(); }, kUrl, 0x80160905,
       "holds no DNS server"},
      {"DNS silent", [](NicWorld& w) { w.web->dnsAnswers = false; }, kUrl + std::u16string(u" -timeout=2"),
       0x80160905, "No answer from the DNS server 10.0.2.3"},
      {"refused", [](NicWorld& w) { w.web->request = EFI_CONNECTION_REFUSED; }, kUrl, 0x80160906,
       "Connection Refused"},
      {"TLS", [](NicWorld& w) { w.web->request = EFI_ABORTED; },
       u"-test=downloadtest -url=https://files.example/x", 0x80160907, "failed in TLS (Aborted)"},
      {"404", [](NicWorld& w) { w.web->code = 21; }, kUrl, 0x80160908, "HTTP status 404"},
      {"stall", [](NicWorld& w) { w.web->stallAfter = 100000; }, kUrl + std::u16string(u" -timeout=2"),
       0x80160909, "no byte for 2 s after 10"},
      {"cut", [](NicWorld& w) { w.web->closeAfter = 150000; }, kUrl, 0x80160909,
       "ended after 150000 of 300000 bytes (Connection Closed)"},
      {"too slow", [](NicWorld& w) { w.web->pieceTime = 1000000; }, kUrl + std::u16string(u" -MinSpeed=1"),
       0x8016090B, "is below -MinSpeed=1"},
      {"no cable", [](NicWorld& w) { w.nic.link = false; }, kUrl, 0x80160903, "Media cable not detected"},
      {"no such NIC", nullptr, kUrl + std::u16string(u" -index=2"), 0x80160902, "not found"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    w.web.reset();
    w.web = std::make_unique<FakeWeb>(w.nic);
    w.nic.link = true;
    w.nic.dnsServers = {{{10, 0, 2, 3}}};
    if (c.arrange != nullptr)
      c.arrange(w);
    auto o = Run(c.options);
    EXPECT_EQ(o.result, TEST_RESULT_FAILED) << w.Said();
    EXPECT_EQ(o.error, c.code) << w.Said();
    EXPECT_NE(w.Said().find(c.logged), std::string::npos) << w.Said();
  }
}

TEST(DownloadWithoutHttp, NamesTheMissingClient) {
  NicWorld w;
  ASSERT_TRUE(w.Start());
  auto o = w.Execute(kUrl);
  EXPECT_EQ(o.error, 0x80160901u);
  EXPECT_NE(w.Said().find("no HTTP service binding"), std::string::npos);
  o = w.Execute(u"-test=downloadtest");
  EXPECT_EQ(o.error, ERROR_CODE_INVALID_OPTIONS); // -url is required
  o = w.Execute(u"-test=downloadtest -url=ftp://h/x");
  EXPECT_EQ(o.error, ERROR_CODE_INVALID_OPTIONS);
  o = w.Execute(kUrl + std::u16string(u" -sha256=12"));
  EXPECT_EQ(o.error, ERROR_CODE_INVALID_OPTIONS);
}

} // namespace
