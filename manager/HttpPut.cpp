#include "manager/HttpPut.h"

#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/Print.h"
#include "base/String.h"

namespace {

bool AllBytes(const UINT8 (&bytes)[16], UINT8 value) {
  for (UINT8 b : bytes)
    if (b != value)
      return false;
  return true;
}

// A formatted text that filled its buffer may have been cut.
bool Fits(UINTN written, UINTN size) {
  return written + 1 < size / sizeof(CHAR16);
}

// An HTTP child of one service binding, destroyed with its owner.
class HttpChild {
public:
  HttpChild() = default;
  HttpChild(const HttpChild&) = delete;
  HttpChild& operator=(const HttpChild&) = delete;
  ~HttpChild() {
    if (child_ != nullptr)
      binding_->DestroyChild(binding_, child_);
  }
  EFI_STATUS Create(EFI_HANDLE service) {
    EFI_STATUS status = gBS->HandleProtocol(service, &EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID,
                                            reinterpret_cast<void**>(&binding_));
    if (EFI_ERROR(status))
      return status;
    status = binding_->CreateChild(binding_, &child_);
    if (EFI_ERROR(status)) {
      child_ = nullptr;
      return status;
    }
    return gBS->HandleProtocol(child_, &EFI_HTTP_PROTOCOL_GUID, reinterpret_cast<void**>(&http_));
  }
  EFI_HTTP_PROTOCOL* operator->() const { return http_; }
  EFI_HTTP_PROTOCOL* Get() const { return http_; }

private:
  EFI_SERVICE_BINDING_PROTOCOL* binding_ = nullptr;
  EFI_HANDLE child_ = nullptr;
  EFI_HTTP_PROTOCOL* http_ = nullptr;
};

// One half of an exchange, the request or the answer, with everything the firmware may still write
// into or read from while its token is pending: the token, its message and the message's parts. It
// lives in pool, and its event has no notify function, so that a token the firmware would not
// withdraw can be left to it: a late completion then writes into memory that is still ours and
// signals an event that is still open, whatever VexRun has done since.
struct Exchange {
  EFI_HTTP_TOKEN Token;
  EFI_HTTP_MESSAGE Message;
  EFI_HTTP_REQUEST_DATA Request;
  EFI_HTTP_RESPONSE_DATA Response;
  EFI_HTTP_HEADER Headers[5];
  CHAR8 Host[128];
  CHAR8 Length[24];
  CHAR8 Type[64];
  CHAR16* Url;
  void* Body;
  Exchange* NextLeft; // in the list of exchanges left to the firmware
};

// Exchanges whose token the firmware would not cancel; freed once their token has completed.
constinit Exchange* gLeftToFirmware = nullptr;

void FreeExchange(Exchange* e) {
  if (e == nullptr)
    return;
  if (e->Token.Event != nullptr)
    gBS->CloseEvent(e->Token.Event);
  FreePool(e->Url);
  FreePool(e->Body);
  FreePool(e);
}

EFI_STATUS NewExchange(Exchange** out) {
  auto* e = static_cast<Exchange*>(AllocateZeroPool(sizeof(Exchange)));
  if (e == nullptr)
    return EFI_OUT_OF_RESOURCES;
  EFI_STATUS status = gBS->CreateEvent(0, TPL_CALLBACK, nullptr, nullptr, &e->Token.Event);
  if (EFI_ERROR(status)) {
    e->Token.Event = nullptr;
    FreeExchange(e);
    return status;
  }
  e->Token.Status = EFI_NOT_READY;
  e->Token.Message = &e->Message;
  *out = e;
  return EFI_SUCCESS;
}

// A pending token is cancelled; one the firmware will not give back (Cancel answers Not Found or
// Not Started while its TCP still holds it) is left to it, with its exchange.
void Withdraw(EFI_HTTP_PROTOCOL* http, Exchange*& e) {
  if (e->Token.Status == EFI_NOT_READY && EFI_ERROR(http->Cancel(http, &e->Token)) &&
      e->Token.Status == EFI_NOT_READY) {
    e->NextLeft = gLeftToFirmware;
    gLeftToFirmware = e;
    e = nullptr;
  }
}

// Sends the request or asks for the answer, then polls the child until the token completes, TimeoutMs
// pass or the bound is over.
EFI_STATUS Await(EFI_HTTP_PROTOCOL* http, Exchange*& e, bool request, UINT32 timeoutMs,
                 const WaitBound* bound) {
  EFI_STATUS status = request ? http->Request(http, &e->Token) : http->Response(http, &e->Token);
  if (EFI_ERROR(status)) {
    e->Token.Status = status; // never queued
    return status;
  }
  wc::EventOwner timer;
  status = timer.Create(EVT_TIMER);
  if (EFI_ERROR(status) ||
      EFI_ERROR(status = gBS->SetTimer(timer.Get(), TimerRelative, UINT64(timeoutMs) * 10000))) {
    Withdraw(http, e);
    return status;
  }
  while (e->Token.Status == EFI_NOT_READY) {
    http->Poll(http);
    bool over = gBS->CheckEvent(timer.Get()) == EFI_SUCCESS || (bound != nullptr && bound->Over());
    if (over && e->Token.Status == EFI_NOT_READY) {
      Withdraw(http, e);
      return EFI_TIMEOUT;
    }
  }
  return e->Token.Status;
}

// Copies an ASCII text, cut to the buffer.
void CopyAscii(CHAR8* out, UINTN size, const CHAR8* in) {
  UINTN n = 0;
  for (; in[n] != 0 && n + 1 < size; ++n)
    out[n] = in[n];
  out[n] = 0;
}

void FreeHeaders(EFI_HTTP_HEADER* headers, UINTN count) {
  if (headers == nullptr)
    return;
  for (UINTN i = 0; i < count; ++i) {
    FreePool(headers[i].FieldName);
    FreePool(headers[i].FieldValue);
  }
  FreePool(headers);
}

} // namespace

bool FormatSystemUuid(const UINT8 (&Uuid)[16], CHAR16* Out, UINTN OutSize) {
  if (AllBytes(Uuid, 0) || AllBytes(Uuid, 0xFF))
    return false;
  const UINT8* u = Uuid;
  UINTN written = SPrint(Out, OutSize, u"%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                         UINT32(u[0] | u[1] << 8 | u[2] << 16 | UINT32(u[3]) << 24), UINT16(u[4] | u[5] << 8),
                         UINT16(u[6] | u[7] << 8), u[8], u[9], u[10], u[11], u[12], u[13], u[14], u[15]);
  if (!Fits(written, OutSize))
    return false;
  StrToLower(Out); // the print routine writes upper-case digits
  return true;
}

void UploadStatusName(EFI_STATUS Status, CHAR16* Out, UINTN OutSize) {
  static constexpr struct {
    EFI_STATUS status;
    const CHAR16* name;
  } kNames[] = {{EFI_HTTP_ERROR, u"HTTP error"},
                {EFI_NETWORK_UNREACHABLE, u"Network Unreachable"},
                {EFI_HOST_UNREACHABLE, u"Host Unreachable"},
                {EFI_PROTOCOL_UNREACHABLE, u"Protocol Unreachable"},
                {EFI_PORT_UNREACHABLE, u"Port Unreachable"},
                {EFI_CONNECTION_FIN, u"Connection Closed"},
                {EFI_CONNECTION_RESET, u"Connection Reset"},
                {EFI_CONNECTION_REFUSED, u"Connection Refused"}};
  for (const auto& n : kNames)
    if (n.status == Status) {
      StrCopy(Out, OutSize, n.name);
      return;
    }
  SPrint(Out, OutSize, u"%r", Status);
}

const CHAR16* HttpsTrouble(const CHAR16* Url, const PutOutcome& Outcome) {
  constexpr EFI_GUID kTlsCaCertificateGuid = {
      0xFD2340D0, 0x3DAB, 0x4349, {0xA6, 0xC7, 0x3B, 0x4F, 0x12, 0xB4, 0x8E, 0xAE}};
  if (Outcome.Answered || StrnCmp(Url, u"https://", 8) != 0)
    return nullptr;
  if (Outcome.Status == EFI_ABORTED)
    return u"the TLS handshake failed: the server's certificate is not signed by a certificate authority the "
           u"firmware trusts, or does not name the server";
  UINTN size = 0;
  if (Outcome.Status != EFI_NOT_FOUND ||
      gRT->GetVariable(const_cast<CHAR16*>(u"TlsCaCertificate"), &kTlsCaCertificateGuid, nullptr, &size,
                       nullptr) != EFI_NOT_FOUND)
    return nullptr;
  return u"the firmware has no certificate authority for HTTPS (no TlsCaCertificate variable): enrol the "
         u"fleet's "
         u"CA certificate in the firmware's TLS settings";
}

UINTN HttpStatusNumber(EFI_HTTP_STATUS_CODE Code) {
  return Code < sizeof(kHttpStatusCodes) / sizeof(kHttpStatusCodes[0]) ? kHttpStatusCodes[Code] : 0;
}

bool UrlAuthority(const CHAR16* Url, CHAR8* Host, UINTN HostSize) {
  if (Url == nullptr || HostSize == 0)
    return false;
  const CHAR16* start = nullptr;
  if (StrnCmp(Url, u"http://", 7) == 0)
    start = Url + 7;
  else if (StrnCmp(Url, u"https://", 8) == 0)
    start = Url + 8;
  else
    return false;
  UINTN n = 0;
  for (const CHAR16* c = start; *c != 0 && *c != u'/'; ++c) {
    if (*c <= u' ' || *c > 0x7E || n + 1 >= HostSize)
      return false;
    Host[n++] = CHAR8(*c);
  }
  Host[n] = 0;
  return n > 0;
}

bool UploadFolder(const CHAR16* BaseUrl, const CHAR16* Machine, const EFI_TIME& Start, UINT16 Tag,
                  CHAR16* Out, UINTN OutSize) {
  UINTN length = StrLen(BaseUrl);
  const CHAR16* slash = length > 0 && BaseUrl[length - 1] == u'/' ? u"" : u"/";
  UINTN written = SPrint(Out, OutSize, u"%s%s%s/%04d%02d%02d-%02d%02d%02d-%05d/", BaseUrl, slash, Machine,
                         Start.Year, Start.Month, Start.Day, Start.Hour, Start.Minute, Start.Second, Tag);
  return Fits(written + kUploadNameChars, OutSize);
}

WaitBound::~WaitBound() {
  if (event_ != nullptr)
    gBS->CloseEvent(event_);
}

void EFIAPI WaitBound::Fire(EFI_EVENT, void* Context) {
  static_cast<WaitBound*>(Context)->over_ = true;
}

EFI_STATUS WaitBound::Start(UINT64 Milliseconds) {
  EFI_STATUS status = gBS->CreateEvent(EVT_TIMER | EVT_NOTIFY_SIGNAL, TPL_CALLBACK, Fire, this, &event_);
  if (EFI_ERROR(status)) {
    event_ = nullptr;
    return status;
  }
  return gBS->SetTimer(event_, TimerRelative, Milliseconds * 10000);
}

void ReleaseFinishedExchanges() {
  for (Exchange** link = &gLeftToFirmware; *link != nullptr;) {
    Exchange* e = *link;
    if (e->Token.Status == EFI_NOT_READY) {
      link = &e->NextLeft;
      continue;
    }
    *link = e->NextLeft;
    if (e->Message.Data.Response == &e->Response)
      FreeHeaders(e->Message.Headers, e->Message.HeaderCount);
    FreeExchange(e);
  }
}

UINTN ExchangesLeftToFirmware() {
  UINTN n = 0;
  for (const Exchange* e = gLeftToFirmware; e != nullptr; e = e->NextLeft)
    ++n;
  return n;
}

PutOutcome HttpPut(EFI_HANDLE Service, const CHAR16* Url, const CHAR8* ContentType, const void* Body,
                   UINTN Size, UINT32 TimeoutMs, const WaitBound* Bound) {
  ReleaseFinishedExchanges();
  PutOutcome outcome;
  CHAR8 host[128];
  if (!UrlAuthority(Url, host, sizeof(host))) {
    outcome.Status = EFI_INVALID_PARAMETER;
    return outcome;
  }
  // Declared before the child: a token still pending when the child goes is cancelled by the
  // firmware then, into an exchange that still exists.
  Exchange* sent = nullptr;
  Exchange* received = nullptr;
  wc::ScopeGuard release([&] {
    FreeExchange(sent);
    if (received != nullptr)
      FreeHeaders(received->Message.Headers, received->Message.HeaderCount);
    FreeExchange(received);
  });
  HttpChild http;
  if (EFI_ERROR(outcome.Status = http.Create(Service)))
    return outcome;
  EFI_HTTPv4_ACCESS_POINT access = {};
  access.UseDefaultAddress = TRUE; // the NIC's own address, from its DHCP or static configuration
  EFI_HTTP_CONFIG_DATA config = {HttpVersion11, TimeoutMs, FALSE, {&access}};
  // A server named by an IPv6 address ("[fd99::1]"): the child goes over IPv6, from whichever of the
  // NIC's addresses the firmware chooses (the unspecified local address).
  EFI_HTTPv6_ACCESS_POINT access6 = {};
  if (host[0] == '[') {
    config.LocalAddressIsIPv6 = TRUE;
    config.IPv6Node = &access6;
  }
  if (EFI_ERROR(outcome.Status = http->Configure(http.Get(), &config)))
    return outcome;

  if (EFI_ERROR(outcome.Status = NewExchange(&sent)))
    return outcome;
  // The request's texts and body are the exchange's own copies: the firmware may read them after a
  // token it would not cancel.
  sent->Url = StrDuplicate(Url);
  sent->Body = AllocateZeroPool(Size != 0 ? Size : 1); // the firmware wants a body even for an empty file
  if (sent->Url == nullptr || sent->Body == nullptr) {
    outcome.Status = EFI_OUT_OF_RESOURCES;
    return outcome;
  }
  CopyMem(sent->Body, Body, Size);
  CopyAscii(sent->Host, sizeof(sent->Host), host);
  CopyAscii(sent->Type, sizeof(sent->Type), ContentType);
  CHAR16 digits[24];
  SPrint(digits, sizeof(digits), u"%d", Size);
  UnicodeToAscii(sent->Length, sizeof(sent->Length), digits);
  const CHAR8* names[] = {"Host", "User-Agent", "Content-Type", "Content-Length", "Connection"};
  const CHAR8* values[] = {sent->Host, "VexRun/1.1", sent->Type, sent->Length, "close"};
  for (UINTN i = 0; i < 5; ++i)
    sent->Headers[i] = {const_cast<CHAR8*>(names[i]), const_cast<CHAR8*>(values[i])};
  sent->Request = {HttpMethodPut, sent->Url};
  sent->Message.Data.Request = &sent->Request;
  sent->Message.HeaderCount = 5;
  sent->Message.Headers = sent->Headers;
  sent->Message.BodyLength = Size;
  sent->Message.Body = sent->Body;
  if (EFI_ERROR(outcome.Status = Await(http.Get(), sent, true, TimeoutMs, Bound)))
    return outcome;

  if (EFI_ERROR(outcome.Status = NewExchange(&received)))
    return outcome;
  received->Message.Data.Response = &received->Response;
  outcome.Status = Await(http.Get(), received, false, TimeoutMs, Bound);
  // An answer of 300 or more ends the token with the firmware's HTTP error, its code still given.
  if (received != nullptr && (!EFI_ERROR(outcome.Status) || outcome.Status == EFI_HTTP_ERROR)) {
    outcome.Answered = true;
    outcome.HttpCode = HttpStatusNumber(received->Response.StatusCode);
    if (outcome.HttpCode < 200 || outcome.HttpCode > 299)
      outcome.Status = EFI_HTTP_ERROR;
  }
  return outcome;
}
