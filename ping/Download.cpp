#include "ping/Download.h"

#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/String.h"
#include "support/Clock.h"

namespace {

// EDK2's managed network takes in one frame per poll, and its TCP completes a receive as soon as a
// segment is there: a piece asked for at once is one segment, at the cost of a whole answer call
// each. Polling first lets the segments gather in the connection's buffer (two megabytes in EDK2),
// and one call then takes them all: on QEMU's virtio NIC, 45,000 calls for 64 MiB become 1,400.
constexpr UINTN kPollsBetweenCalls = 32;

constexpr CHAR8 ToLowerAscii(CHAR8 c) {
  return c >= 'A' && c <= 'Z' ? CHAR8(c - 'A' + 'a') : c;
}

bool NameIs(const CHAR8* name, const char* wanted) {
  for (; *wanted != 0; ++name, ++wanted)
    if (ToLowerAscii(*name) != *wanted)
      return false;
  return *name == 0;
}

// Whether a comma-separated list of tokens holds Token, without regard to case ("gzip, chunked").
bool ListHolds(const CHAR8* list, const char* token) {
  const CHAR8* p = list;
  while (*p != 0) {
    while (*p == ' ' || *p == '\t' || *p == ',')
      ++p;
    const CHAR8* start = p;
    while (*p != 0 && *p != ',' && *p != ' ' && *p != '\t' && *p != ';')
      ++p;
    UINTN n = UINTN(p - start);
    UINTN i = 0;
    while (i < n && token[i] != 0 && ToLowerAscii(start[i]) == token[i])
      ++i;
    if (i == n && token[i] == 0 && n > 0)
      return true;
    while (*p != 0 && *p != ',')
      ++p;
  }
  return false;
}

// A decimal length between optional blanks; false for anything else, or a number past 2^63.
bool ReadLength(const CHAR8* text, UINT64* value) {
  const CHAR8* p = text;
  while (*p == ' ' || *p == '\t')
    ++p;
  if (*p < '0' || *p > '9')
    return false;
  UINT64 v = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (v > (1ull << 63) / 10)
      return false;
    v = v * 10 + UINT64(*p - '0');
  }
  while (*p == ' ' || *p == '\t')
    ++p;
  *value = v;
  return *p == 0;
}

void CopyCut(CHAR8* out, UINTN size, const CHAR8* in) {
  UINTN n = 0;
  for (; in[n] != 0 && n + 1 < size; ++n)
    out[n] = in[n] >= ' ' && in[n] < 0x7F ? in[n] : '?'; // the log shows it: nothing that moves the cursor
  out[n] = 0;
}

// The answer's half of the exchange, made once and used for every call: the headers' call first,
// then one call per piece of the body into the same buffer.
class AnswerCalls {
public:
  explicit AnswerCalls(EFI_HTTP_PROTOCOL* Http) : http_(Http) {}
  AnswerCalls(const AnswerCalls&) = delete;
  AnswerCalls& operator=(const AnswerCalls&) = delete;
  ~AnswerCalls() { FreeHttpExchange(e_); }

  EFI_STATUS Prepare(UINTN ChunkBytes) {
    EFI_STATUS status = NewHttpExchange(&e_);
    if (EFI_ERROR(status))
      return status;
    e_->Body = AllocatePool(ChunkBytes);
    chunk_ = ChunkBytes;
    if (e_->Body == nullptr)
      return EFI_OUT_OF_RESOURCES;
    return timer_.Create(EVT_TIMER);
  }
  // One call: the headers' (Headers true) or a piece of the body's. The exchange is gone (null)
  // when the firmware kept a token it would not give back.
  EFI_STATUS Call(bool Headers, UINT32 TimeoutMs) {
    if (e_->Message.Data.Response == &e_->Response && !Headers) {
      // The headers stay with the result's copy; the firmware's allocations go now.
      for (UINTN i = 0; i < e_->Message.HeaderCount; ++i) {
        FreePool(e_->Message.Headers[i].FieldName);
        FreePool(e_->Message.Headers[i].FieldValue);
      }
      FreePool(e_->Message.Headers);
      e_->Message.Headers = nullptr;
      e_->Message.HeaderCount = 0;
    }
    e_->Token.Status = EFI_NOT_READY;
    e_->Message.Data.Response = Headers ? &e_->Response : nullptr;
    e_->Message.BodyLength = chunk_;
    e_->Message.Body = e_->Body;
    if (!Headers)
      for (UINTN i = 0; i < kPollsBetweenCalls; ++i)
        http_->Poll(http_);
    return AwaitHttpExchange(http_, e_, false, TimeoutMs, nullptr, timer_.Get());
  }
  bool Gone() const { return e_ == nullptr; }
  const EFI_HTTP_MESSAGE& Message() const { return e_->Message; }
  const EFI_HTTP_RESPONSE_DATA& Response() const { return e_->Response; }
  const UINT8* Body() const { return static_cast<const UINT8*>(e_->Body); }

private:
  EFI_HTTP_PROTOCOL* http_;
  HttpExchange* e_ = nullptr;
  wc::EventOwner timer_; // every wait's, made once
  UINTN chunk_ = 0;
};

// The request's half: GET with its headers, the texts in the exchange's own memory (the firmware may
// read them after a token it would not cancel).
EFI_STATUS SendRequest(EFI_HTTP_PROTOCOL* http, const CHAR16* url, const CHAR8* host, UINT32 timeoutMs,
                       HttpExchange*& e) {
  EFI_STATUS status = NewHttpExchange(&e);
  if (EFI_ERROR(status))
    return status;
  e->Url = StrDuplicate(url);
  if (e->Url == nullptr)
    return EFI_OUT_OF_RESOURCES;
  AsciiStrCopyCut(e->Host, sizeof(e->Host), host);
  const CHAR8* names[] = {"Host", "User-Agent", "Accept"};
  const CHAR8* values[] = {e->Host, "Wirecheck/1.1", "*/*"};
  for (UINTN i = 0; i < 3; ++i)
    e->Headers[i] = {const_cast<CHAR8*>(names[i]), const_cast<CHAR8*>(values[i])};
  e->Request = {HttpMethodGet, e->Url};
  e->Message.Data.Request = &e->Request;
  e->Message.HeaderCount = 3;
  e->Message.Headers = e->Headers;
  return AwaitHttpExchange(http, e, true, timeoutMs);
}

} // namespace

void ReadResponseHeaders(const EFI_HTTP_HEADER* Headers, UINTN Count, ResponseHeaders* Out) {
  *Out = ResponseHeaders{};
  if (Headers == nullptr)
    return;
  for (UINTN i = 0; i < Count; ++i) {
    const CHAR8* name = Headers[i].FieldName;
    const CHAR8* value = Headers[i].FieldValue;
    if (name == nullptr || value == nullptr)
      continue;
    if (NameIs(name, "content-length")) {
      UINT64 length = 0;
      if (!ReadLength(value, &length) || (Out->HasLength && length != Out->Length))
        Out->LengthConflict = true;
      else {
        Out->HasLength = true;
        Out->Length = length;
      }
    } else if (NameIs(name, "transfer-encoding")) {
      Out->Chunked = Out->Chunked || ListHolds(value, "chunked");
    } else if (NameIs(name, "content-type")) {
      CopyCut(Out->ContentType, sizeof(Out->ContentType), value);
    } else if (NameIs(name, "location")) {
      CopyCut(Out->Location, sizeof(Out->Location), value);
    } else if (NameIs(name, "server")) {
      CopyCut(Out->Server, sizeof(Out->Server), value);
    }
  }
  // A length the fields disagree on, or one beside chunked coding, tells nothing about the body.
  if (Out->LengthConflict || Out->Chunked) {
    Out->HasLength = false;
    Out->Length = 0;
  }
}

DownloadResult HttpDownload(EFI_HANDLE Service, const DownloadSettings& Settings, const DownloadSink& Sink) {
  ReleaseFinishedExchanges();
  DownloadResult r;
  CHAR8 host[128];
  if (!UrlAuthority(Settings.Url, host, sizeof(host))) {
    r.End = DownloadEnd::RequestFailed;
    r.Status = EFI_INVALID_PARAMETER;
    return r;
  }
  // Declared before the child: a token still pending when the child goes is cancelled by the
  // firmware then, into an exchange that still exists.
  HttpExchange* request = nullptr;
  wc::ScopeGuard release([&] { FreeHttpExchange(request); });
  HttpChild http;
  if (EFI_ERROR(r.Status = http.Create(Service)))
    return r;
  EFI_HTTPv4_ACCESS_POINT access = {};
  access.UseDefaultAddress = TRUE; // the NIC's own address, from its DHCP or static configuration
  EFI_HTTPv6_ACCESS_POINT access6 = {};
  EFI_HTTP_CONFIG_DATA config = {HttpVersion11, Settings.StallMs, FALSE, {&access}};
  if (Settings.Ipv6) {
    config.LocalAddressIsIPv6 = TRUE;
    config.IPv6Node = &access6;
  }
  if (EFI_ERROR(r.Status = http->Configure(http.Get(), &config)))
    return r;

  // The name is resolved, the connection made and TLS negotiated inside the request call.
  r.Status = SendRequest(http.Get(), Settings.Url, host, Settings.StallMs, request);
  if (EFI_ERROR(r.Status)) {
    r.End = r.Status == EFI_OUT_OF_RESOURCES ? DownloadEnd::NoMemory : DownloadEnd::RequestFailed;
    return r;
  }

  AnswerCalls calls(http.Get());
  if (EFI_ERROR(r.Status = calls.Prepare(Settings.ChunkBytes))) {
    r.End = DownloadEnd::NoMemory;
    return r;
  }
  r.Status = calls.Call(true, Settings.StallMs);
  if (calls.Gone() || (EFI_ERROR(r.Status) && r.Status != EFI_HTTP_ERROR)) {
    r.End = r.Status == EFI_TIMEOUT ? DownloadEnd::NoAnswer : DownloadEnd::RequestFailed;
    return r;
  }
  r.HttpCode = HttpStatusNumber(calls.Response().StatusCode);
  ReadResponseHeaders(calls.Message().Headers, calls.Message().HeaderCount, &r.Headers);
  // An answer of 300 or more ends the token with the firmware's HTTP error, its code still given.
  if (r.Status == EFI_HTTP_ERROR || r.HttpCode < 200 || r.HttpCode > 299) {
    r.End = DownloadEnd::HttpError;
    r.Status = EFI_HTTP_ERROR;
    return r;
  }

  if (Sink.Answer != nullptr)
    Sink.Answer(Sink.Context, r.Headers);
  UINTN piece = calls.Message().BodyLength;
  UINT64 sinkTicks = 0;
  for (;;) {
    if (piece > 0) {
      UINT64 now = ReadTimeStampCounter();
      if (r.FirstTicks == 0) {
        r.FirstTicks = now;
        r.FirstBytes = piece;
      } else {
        r.SinkTicks += sinkTicks; // the previous piece's, which ran before this stamp
      }
      r.LastTicks = now;
      r.Received += piece;
      bool more = Sink.Piece == nullptr || Sink.Piece(Sink.Context, calls.Body(), piece, r.Received);
      sinkTicks = ReadTimeStampCounter() - now;
      if (!more) {
        r.End = DownloadEnd::Stopped;
        return r;
      }
    }
    if (r.Headers.HasLength && r.Received >= r.Headers.Length) {
      r.End = DownloadEnd::Complete;
      r.Status = EFI_SUCCESS;
      return r;
    }
    ++r.AnswerCalls;
    r.Status = calls.Call(false, Settings.StallMs);
    if (r.Status == EFI_TIMEOUT || calls.Gone()) {
      r.End = DownloadEnd::Stalled;
      return r;
    }
    if (EFI_ERROR(r.Status)) {
      // Without a length, the server marks the end by closing the connection.
      bool closed = r.Status == EFI_CONNECTION_FIN;
      r.End = !r.Headers.HasLength && !r.Headers.Chunked && closed ? DownloadEnd::Complete : DownloadEnd::Cut;
      return r;
    }
    piece = calls.Message().BodyLength;
    // The firmware answers a call after the whole message with no bytes: the body is complete.
    if (piece == 0 && !r.Headers.HasLength) {
      r.End = DownloadEnd::Complete;
      return r;
    }
    if (piece == 0) {
      r.End = DownloadEnd::Cut;
      r.Status = EFI_END_OF_FILE;
      return r;
    }
  }
}
