#include "tests/DownloadJudge.h"

#include "base/String.h"
#include "report/Output.h"

namespace {

// A transfer shorter than this is not timed: the counter's stamps mark pieces, not bytes, and a few
// pieces over a few milliseconds say little of the link.
constexpr UINT64 kShortestTimedUs = 10000;

bool IsNameChar(CHAR16 c) {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') || c == u'-' ||
         c == u'.';
}

bool IsDottedQuad(const CHAR16* host) {
  UINTN parts = 0, digits = 0, value = 0;
  for (const CHAR16* c = host;; ++c) {
    if (*c >= u'0' && *c <= u'9' && digits < 3) {
      value = value * 10 + (*c - u'0');
      ++digits;
      continue;
    }
    if ((*c != u'.' && *c != 0) || digits == 0 || value > 255)
      return false;
    ++parts;
    digits = value = 0;
    if (*c == 0)
      return parts == 4;
  }
}

// The statuses with which the firmware's HTTP client ends an HTTPS request in its TLS: a handshake
// that failed (Aborted), no certificate authority enrolled (Not Found), no TLS at all (Unsupported),
// and a refusal of the server's certificate.
bool IsTlsStatus(EFI_STATUS s) {
  return s == EFI_ABORTED || s == EFI_NOT_FOUND || s == EFI_UNSUPPORTED || s == EFI_ACCESS_DENIED ||
         s == EFI_SECURITY_VIOLATION;
}

const CHAR16* TlsReason(EFI_STATUS s) {
  if (s == EFI_ABORTED)
    return u"the server's certificate is not signed by a certificate authority the firmware trusts, does "
           u"not name the server, or the two sides share no cipher";
  if (s == EFI_NOT_FOUND)
    return u"the firmware has no certificate authority enrolled for HTTPS (no TlsCaCertificate variable)";
  if (s == EFI_UNSUPPORTED)
    return u"the firmware has no TLS (no TLS service binding)";
  return u"the firmware refused the server's certificate";
}

void SayDigest(const CHAR16* what, const UINT8 (&digest)[kSha256Bytes]) {
  CHAR16 hex[kSha256HexChars + 1];
  FormatSha256Hex(digest, hex);
  LogPrint(u"%s %s\r\n", what, hex);
}

} // namespace

bool SplitDownloadUrl(const CHAR16* Url, UrlParts* Parts) {
  *Parts = UrlParts{};
  const CHAR16* p = nullptr;
  if (StrnCmp(Url, u"http://", 7) == 0) {
    p = Url + 7;
  } else if (StrnCmp(Url, u"https://", 8) == 0) {
    p = Url + 8;
    Parts->Https = true;
  } else {
    return false;
  }
  UINTN n = 0;
  if (*p == u'[') {
    Parts->Ipv6 = true;
    for (++p; *p != u']'; ++p) {
      bool hex = (*p >= u'0' && *p <= u'9') || (*p >= u'a' && *p <= u'f') || (*p >= u'A' && *p <= u'F');
      if ((!hex && *p != u':' && *p != u'.') || n + 1 >= kHostChars)
        return false;
      Parts->Host[n++] = *p;
    }
    ++p;
  } else {
    for (; IsNameChar(*p); ++p) {
      if (n + 1 >= kHostChars)
        return false;
      Parts->Host[n++] = *p;
    }
  }
  Parts->Host[n] = 0;
  if (n == 0)
    return false;
  if (*p == u':') {
    UINTN port = 0, digits = 0;
    for (++p; *p >= u'0' && *p <= u'9'; ++p, ++digits)
      if ((port = port * 10 + (*p - u'0')) > 65535)
        return false;
    if (digits == 0 || port == 0)
      return false;
    Parts->Port = UINT16(port);
  }
  if (*p != 0 && *p != u'/')
    return false;
  for (; *p != 0; ++p)
    if (*p <= u' ' || *p > 0x7E)
      return false;
  Parts->IsName = !Parts->Ipv6 && !IsDottedQuad(Parts->Host);
  return true;
}

DownloadVerdict JudgeDownload(const DownloadResult& Result, const UrlParts& Url,
                              const UINT8 (*Wanted)[kSha256Bytes], const UINT8 (&Got)[kSha256Bytes],
                              UINT64 MinSpeed, UINT64 Frequency) {
  DownloadVerdict v;
  // Bounds that keep the arithmetic within 64 bits: a day of ticks, a petabyte.
  UINT64 ticks = Result.LastTicks - Result.FirstTicks;
  UINT64 bytes = Result.Received - Result.FirstBytes;
  if (Result.FirstTicks != 0 && Result.LastTicks > Result.FirstTicks && Frequency >= 1000 &&
      ticks / Frequency < 86400 && Result.Received >= Result.FirstBytes && bytes < (1ull << 50)) {
    UINT64 us = ticks / (Frequency / 1000) * 1000 + ticks % (Frequency / 1000) * 1000 / (Frequency / 1000);
    if (us >= kShortestTimedUs) {
      // Bytes a second without overflow: whole seconds' worth, then the rest.
      UINT64 perSecond = bytes / us * 1000000 + bytes % us * 1000000 / us;
      v.Timed = true;
      v.Milliseconds = us / 1000;
      v.Mbps = perSecond / 131072; // x 8 / 2^20
      v.KibPerSecond = perSecond / 1024;
      v.SinkMilliseconds = Result.SinkTicks < ticks ? Result.SinkTicks / (Frequency / 1000) : v.Milliseconds;
    }
  }
  switch (Result.End) {
  case DownloadEnd::NoChild:
    v.Code = Result.Status == EFI_NO_MAPPING ? kNoAddress : ERROR_CODE_SOFTWARE;
    return v;
  case DownloadEnd::NoMemory:
  case DownloadEnd::Stopped:
    v.Code = ERROR_CODE_SOFTWARE;
    return v;
  case DownloadEnd::RequestFailed:
    v.Code = Url.Https && IsTlsStatus(Result.Status) ? kTlsFailed
             : Result.Status == EFI_OUT_OF_RESOURCES ? ERROR_CODE_SOFTWARE
                                                     : kNoConnection;
    return v;
  case DownloadEnd::HttpError:
    v.Code = kHttpStatus;
    return v;
  case DownloadEnd::NoAnswer:
  case DownloadEnd::Stalled:
  case DownloadEnd::Cut:
    v.Code = kTransferBroken;
    return v;
  case DownloadEnd::Complete:
    break;
  }
  if (Result.Headers.HasLength && Result.Received != Result.Headers.Length) {
    v.Code = kTransferBroken;
    return v;
  }
  if (Wanted != nullptr) {
    v.DigestChecked = true;
    for (UINTN i = 0; i < kSha256Bytes; ++i)
      if ((*Wanted)[i] != Got[i]) {
        v.Code = kDigestMismatch;
        return v;
      }
  }
  if (MinSpeed > 0 && v.Timed && v.Mbps < MinSpeed)
    v.Code = kTooSlow;
  return v;
}

void SayDownload(const DownloadResult& Result, const DownloadVerdict& Verdict, const UrlParts& Url,
                 const UINT8 (*Wanted)[kSha256Bytes], const UINT8 (&Got)[kSha256Bytes], UINT64 MinSpeed,
                 UINT64 TimeoutSeconds) {
  CHAR16 status[40];
  HttpStatusName(Result.Status, status, sizeof(status));
  const ResponseHeaders& h = Result.Headers;
  switch (Result.End) {
  case DownloadEnd::NoChild:
    LogPrint(u"No HTTP child could be made or configured on the NIC (%s).\r\n", status);
    return;
  case DownloadEnd::NoMemory:
    LogPrint(u"Out of memory for the download (%s).\r\n", status);
    return;
  case DownloadEnd::Stopped:
    return;
  case DownloadEnd::RequestFailed:
    if (Verdict.Code == kTlsFailed)
      LogPrint(u"The HTTPS request failed in TLS (%s): %s.\r\n", status, TlsReason(Result.Status));
    else
      LogPrint(u"The request reached no server on %s (%s).\r\n", Url.Host, status);
    return;
  case DownloadEnd::NoAnswer:
    LogPrint(u"The server took the request and sent no answer in %d s.\r\n", TimeoutSeconds);
    return;
  case DownloadEnd::HttpError:
    LogPrint(u"The server answered with HTTP status %d", Result.HttpCode);
    if (h.Location[0] != 0)
      LogPrint(u", pointing to %a (the test does not follow redirections)", h.Location);
    LogPrint(u".\r\n");
    return;
  default:
    break;
  }
  LogPrint(u"HTTP status %d", Result.HttpCode);
  if (h.HasLength)
    LogPrint(u", Content-Length %ld", h.Length);
  else
    LogPrint(h.Chunked ? u", chunked, no length" : u", no length: the body ends when the server closes");
  if (h.ContentType[0] != 0)
    LogPrint(u", %a", h.ContentType);
  if (h.Server[0] != 0)
    LogPrint(u", server %a", h.Server);
  LogPrint(u"\r\n");
  LogPrint(u"Received %ld bytes in %ld answer call(s)\r\n", Result.Received, Result.AnswerCalls + 1);
  if (Verdict.Timed) {
    LogPrint(u"Received %ld bytes using %ld ms, speed is %ld Mbit/s (%ld KiB/s)\r\n",
             Result.Received - Result.FirstBytes, Verdict.Milliseconds, Verdict.Mbps, Verdict.KibPerSecond);
    // Where the time went: the module's own work on the pieces, the rest in the firmware's receive.
    LogPrint(u"Of those ms, %ld went to the digest and the progress, the rest to the firmware's receive.\r\n",
             Verdict.SinkMilliseconds);
  } else
    LogPrint(u"The transfer was too short to time.\r\n");
  if (Result.End == DownloadEnd::Stalled)
    LogPrint(u"The transfer stalled: no byte for %d s after %ld bytes.\r\n", TimeoutSeconds, Result.Received);
  else if (Result.End == DownloadEnd::Cut)
    LogPrint(u"The transfer ended after %ld of %ld bytes (%s).\r\n", Result.Received, h.Length, status);
  else if (h.HasLength && Result.Received != h.Length)
    LogPrint(u"The body has %ld bytes, Content-Length says %ld.\r\n", Result.Received, h.Length);
  if (Verdict.DigestChecked) {
    SayDigest(u"SHA-256", Got);
    if (Verdict.Code == kDigestMismatch)
      SayDigest(u"SHA-256 wanted", *Wanted);
  }
  if (Verdict.Code == kTooSlow)
    LogPrint(u"%ld Mbit/s is below -MinSpeed=%ld.\r\n", Verdict.Mbps, MinSpeed);
}
