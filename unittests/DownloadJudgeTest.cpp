// downloadtest's parts that need no firmware: SHA-256 against the published vectors, the URL it
// accepts, the answer's headers it reads, and what a download's end comes to.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/Sha256.h"
#include "tests/DownloadJudge.h"

namespace {

std::string Hex(const UINT8 (&d)[kSha256Bytes]) {
  CHAR16 text[kSha256HexChars + 1];
  FormatSha256Hex(d, text);
  return std::string(text, text + kSha256HexChars);
}

std::string Digest(const std::string& data, size_t piece) {
  Sha256 h;
  for (size_t at = 0; at < data.size(); at += piece)
    h.Update(data.data() + at, std::min(piece, data.size() - at));
  UINT8 d[kSha256Bytes];
  h.Final(d);
  return Hex(d);
}

TEST(Sha256, PublishedVectorsInPiecesOfAnySize) {
  const std::string two = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
  const std::string four =
      "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqr"
      "lmnopqrsmnopqrstnopqrstu";
  for (size_t piece : {1, 3, 63, 64, 65, 1000}) {
    EXPECT_EQ(Digest("", piece), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(Digest("abc", piece), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(Digest(two, piece), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(Digest(four, piece), "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1");
  }
  EXPECT_EQ(Digest(std::string(1000000, 'a'), 4096),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  // Lengths around the padding's edge (55, 56 and 64 bytes) against a reference taken once.
  EXPECT_EQ(Digest(std::string(55, 'x'), 7), Digest(std::string(55, 'x'), 55));
  EXPECT_NE(Digest(std::string(55, 'x'), 1), Digest(std::string(56, 'x'), 1));
}

TEST(Sha256, DigestTextReadsBackAndRefusesAnythingElse) {
  UINT8 d[kSha256Bytes];
  const char16_t* good = u"BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD";
  ASSERT_TRUE(ParseSha256Hex(good, d));
  EXPECT_EQ(Hex(d), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  std::u16string shortText(good, 63), longText = std::u16string(good) + u"0", bad = good;
  bad[10] = u'g';
  for (const std::u16string& t : {shortText, longText, bad, std::u16string()})
    EXPECT_FALSE(ParseSha256Hex(t.c_str(), d)) << std::string(t.begin(), t.end());
  EXPECT_FALSE(ParseSha256Hex(nullptr, d));
}

TEST(DownloadUrl, HostsPortsAndWhatIsRefused) {
  UrlParts u;
  ASSERT_TRUE(SplitDownloadUrl(u"http://files.wirecheck.test/image.bin", &u));
  EXPECT_TRUE(u.IsName);
  EXPECT_FALSE(u.Https);
  EXPECT_EQ(std::u16string(u.Host), u"files.wirecheck.test");
  ASSERT_TRUE(SplitDownloadUrl(u"https://10.99.0.1:8443/x", &u));
  EXPECT_TRUE(u.Https);
  EXPECT_FALSE(u.IsName);
  EXPECT_EQ(u.Port, 8443);
  ASSERT_TRUE(SplitDownloadUrl(u"http://[fd99::1]/a?b=c", &u));
  EXPECT_TRUE(u.Ipv6);
  EXPECT_EQ(std::u16string(u.Host), u"fd99::1");
  ASSERT_TRUE(SplitDownloadUrl(u"http://host", &u));
  // A dotted name that is not an address is a name to resolve.
  ASSERT_TRUE(SplitDownloadUrl(u"http://10.0.0.256/", &u));
  EXPECT_TRUE(u.IsName);
  for (const char16_t* bad :
       {u"ftp://h/x", u"http:///x", u"http://h:0/", u"http://h:65536/", u"http://h:/", u"http://[fd99::1/",
        u"http://h x/", u"http://h/a b", u"http://h_u/", u"http://[zz::1]/", u"HTTP//h/"})
    EXPECT_FALSE(SplitDownloadUrl(bad, &u))
        << std::string(bad, bad + std::char_traits<char16_t>::length(bad));
  std::u16string longHost = u"http://" + std::u16string(kHostChars, u'a') + u"/";
  EXPECT_FALSE(SplitDownloadUrl(longHost.c_str(), &u));
}

struct Headers {
  std::vector<std::pair<const char*, const char*>> fields;
  ResponseHeaders Read() {
    std::vector<EFI_HTTP_HEADER> h;
    for (auto& [n, v] : fields)
      h.push_back({const_cast<CHAR8*>(n), const_cast<CHAR8*>(v)});
    ResponseHeaders r;
    ReadResponseHeaders(h.data(), h.size(), &r);
    return r;
  }
};

TEST(DownloadHeaders, LengthIsTrustedOnlyWhenEveryFieldAgrees) {
  ResponseHeaders r =
      Headers{{{"content-LENGTH", " 67108864 "}, {"Server", "nginx"}, {"Content-Type", "a\x1b[2Jb"}}}.Read();
  EXPECT_TRUE(r.HasLength);
  EXPECT_EQ(r.Length, 67108864u);
  EXPECT_STREQ(r.Server, "nginx");
  EXPECT_STREQ(r.ContentType, "a?[2Jb"); // nothing that moves the terminal's cursor reaches the log
  EXPECT_TRUE((Headers{{{"Content-Length", "5"}, {"Content-Length", "5"}}}.Read().HasLength));
  for (Headers h : {Headers{{{"Content-Length", "5"}, {"Content-Length", "6"}}},
                    Headers{{{"Content-Length", "-5"}}}, Headers{{{"Content-Length", "5x"}}},
                    Headers{{{"Content-Length", ""}}}, Headers{{{"Content-Length", "99999999999999999999"}}},
                    Headers{{{"Content-Length", "5"}, {"Transfer-Encoding", "gzip, Chunked"}}}})
    EXPECT_FALSE(h.Read().HasLength);
  EXPECT_TRUE((Headers{{{"Transfer-Encoding", "chunked"}}}.Read().Chunked));
  EXPECT_FALSE((Headers{{{"Transfer-Encoding", "notchunked"}}}.Read().Chunked));
  // Fields the firmware left without a name or a value are skipped.
  EXPECT_FALSE((Headers{{{nullptr, "5"}, {"Content-Length", nullptr}}}.Read().HasLength));
  ResponseHeaders none;
  ReadResponseHeaders(nullptr, 3, &none);
  EXPECT_FALSE(none.HasLength);
}

DownloadResult Finished(UINT64 bytes, UINT64 length, UINT64 firstTicks, UINT64 lastTicks) {
  DownloadResult r;
  r.End = DownloadEnd::Complete;
  r.Status = EFI_SUCCESS;
  r.HttpCode = 200;
  r.Headers.HasLength = length != 0;
  r.Headers.Length = length;
  r.Received = bytes;
  r.FirstBytes = 256 * 1024;
  r.FirstTicks = firstTicks;
  r.LastTicks = lastTicks;
  return r;
}

TEST(DownloadVerdicts, EachEndHasItsCode) {
  UrlParts http, https;
  SplitDownloadUrl(u"http://h/x", &http);
  SplitDownloadUrl(u"https://h/x", &https);
  UINT8 got[kSha256Bytes] = {1, 2, 3}, other[kSha256Bytes] = {1, 2, 4};
  const UINT64 hz = 1000000000;
  // 64 MiB less the first piece over 2 s at 1 GHz: 255 Mbit/s of 2^20 bits.
  DownloadResult done = Finished(64 << 20, 64 << 20, hz, 3 * hz);
  DownloadVerdict v = JudgeDownload(done, http, &got, got, 0, hz);
  EXPECT_EQ(v.Code, ERROR_CODE_NONE);
  EXPECT_TRUE(v.Timed);
  EXPECT_EQ(v.Mbps, 255u);
  EXPECT_EQ(v.Milliseconds, 2000u);
  // The module's own share of those 2 s, and never more than all of them.
  done.SinkTicks = hz / 4;
  EXPECT_EQ(JudgeDownload(done, http, &got, got, 0, hz).SinkMilliseconds, 250u);
  done.SinkTicks = 5 * hz;
  EXPECT_EQ(JudgeDownload(done, http, &got, got, 0, hz).SinkMilliseconds, 2000u);
  done.SinkTicks = 0;
  EXPECT_EQ(JudgeDownload(done, http, &other, got, 0, hz).Code, kDigestMismatch);
  EXPECT_EQ(JudgeDownload(done, http, nullptr, got, 256, hz).Code, kTooSlow);
  EXPECT_EQ(JudgeDownload(done, http, nullptr, got, 255, hz).Code, ERROR_CODE_NONE);
  // Too short to time: no figure, and -MinSpeed has nothing to judge.
  DownloadResult quick = Finished(1000, 1000, hz, hz + 1000);
  v = JudgeDownload(quick, http, nullptr, got, 100, hz);
  EXPECT_FALSE(v.Timed);
  EXPECT_EQ(v.Code, ERROR_CODE_NONE);
  // A body shorter or longer than its length.
  EXPECT_EQ(JudgeDownload(Finished(10, 11, hz, 2 * hz), http, nullptr, got, 0, hz).Code, kTransferBroken);
  // The firmware's failures, by where they happened.
  struct {
    DownloadEnd end;
    EFI_STATUS status;
    const UrlParts& url;
    UINTN code;
  } cases[] = {
      {DownloadEnd::RequestFailed, EFI_ABORTED, https, kTlsFailed},
      {DownloadEnd::RequestFailed, EFI_NOT_FOUND, https, kTlsFailed},
      {DownloadEnd::RequestFailed, EFI_ABORTED, http, kNoConnection},
      {DownloadEnd::RequestFailed, EFI_CONNECTION_REFUSED, https, kNoConnection},
      {DownloadEnd::RequestFailed, EFI_TIMEOUT, http, kNoConnection},
      {DownloadEnd::RequestFailed, EFI_OUT_OF_RESOURCES, http, ERROR_CODE_SOFTWARE},
      {DownloadEnd::NoChild, EFI_NO_MAPPING, http, kNoAddress},
      {DownloadEnd::NoChild, EFI_DEVICE_ERROR, http, ERROR_CODE_SOFTWARE},
      {DownloadEnd::HttpError, EFI_HTTP_ERROR, http, kHttpStatus},
      {DownloadEnd::NoAnswer, EFI_TIMEOUT, http, kTransferBroken},
      {DownloadEnd::Stalled, EFI_TIMEOUT, http, kTransferBroken},
      {DownloadEnd::Cut, EFI_CONNECTION_FIN, http, kTransferBroken},
  };
  for (const auto& c : cases) {
    DownloadResult r;
    r.End = c.end;
    r.Status = c.status;
    EXPECT_EQ(JudgeDownload(r, c.url, &got, got, 0, hz).Code, c.code) << int(c.end) << " " << c.status;
  }
}

} // namespace
