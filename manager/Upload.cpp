#include "manager/Upload.h"

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

void EFIAPI TokenDone(EFI_EVENT, void*) {}

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

// Polls the child until the token completes or TimeoutMs pass; a token still pending then is
// cancelled, so that the firmware never writes into it after we return.
EFI_STATUS WaitForToken(EFI_HTTP_PROTOCOL* http, EFI_HTTP_TOKEN& token, UINT32 timeoutMs) {
  wc::EventOwner timer;
  EFI_STATUS status = timer.Create(EVT_TIMER);
  if (EFI_ERROR(status) ||
      EFI_ERROR(status = gBS->SetTimer(timer.Get(), TimerRelative, UINT64(timeoutMs) * 10000))) {
    http->Cancel(http, &token);
    return status;
  }
  while (token.Status == EFI_NOT_READY) {
    http->Poll(http);
    if (gBS->CheckEvent(timer.Get()) == EFI_SUCCESS) {
      if (token.Status != EFI_NOT_READY)
        break;
      http->Cancel(http, &token);
      return EFI_TIMEOUT;
    }
  }
  return token.Status;
}

// One half of an exchange, the request sent or the answer read, in a token of its own.
EFI_STATUS Exchange(EFI_HTTP_PROTOCOL* http, EFI_HTTP_MESSAGE& message, bool request, UINT32 timeoutMs) {
  wc::EventOwner event;
  EFI_STATUS status = event.Create(EVT_NOTIFY_SIGNAL, TPL_CALLBACK, TokenDone);
  if (EFI_ERROR(status))
    return status;
  EFI_HTTP_TOKEN token = {event.Get(), EFI_NOT_READY, &message};
  status = request ? http->Request(http, &token) : http->Response(http, &token);
  return EFI_ERROR(status) ? status : WaitForToken(http, token, timeoutMs);
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
  return Fits(written, OutSize);
}

PutOutcome HttpPut(EFI_HANDLE Service, const CHAR16* Url, const CHAR8* ContentType, const void* Body,
                   UINTN Size, UINT32 TimeoutMs) {
  PutOutcome outcome;
  CHAR8 host[128];
  if (!UrlAuthority(Url, host, sizeof(host))) {
    outcome.Status = EFI_INVALID_PARAMETER;
    return outcome;
  }
  HttpChild http;
  if (EFI_ERROR(outcome.Status = http.Create(Service)))
    return outcome;
  EFI_HTTPv4_ACCESS_POINT access = {};
  access.UseDefaultAddress = TRUE; // the NIC's own address, from its DHCP or static configuration
  EFI_HTTP_CONFIG_DATA config = {HttpVersion11, TimeoutMs, FALSE, &access};
  if (EFI_ERROR(outcome.Status = http->Configure(http.Get(), &config)))
    return outcome;

  CHAR8 length[24];
  CHAR16 digits[24];
  SPrint(digits, sizeof(digits), u"%d", Size);
  UnicodeToAscii(length, sizeof(length), digits);
  EFI_HTTP_HEADER headers[] = {
      {const_cast<CHAR8*>("Host"), host},
      {const_cast<CHAR8*>("User-Agent"), const_cast<CHAR8*>("VexRun/1.1")},
      {const_cast<CHAR8*>("Content-Type"), const_cast<CHAR8*>(ContentType)},
      {const_cast<CHAR8*>("Content-Length"), length},
      {const_cast<CHAR8*>("Connection"), const_cast<CHAR8*>("close")},
  };
  EFI_HTTP_REQUEST_DATA request = {HttpMethodPut, const_cast<CHAR16*>(Url)};
  EFI_HTTP_MESSAGE sent = {};
  sent.Data.Request = &request;
  sent.HeaderCount = sizeof(headers) / sizeof(headers[0]);
  sent.Headers = headers;
  sent.BodyLength = Size;
  static UINT8 empty = 0; // the firmware wants a body pointer even for an empty file
  sent.Body = Size != 0 ? const_cast<void*>(Body) : &empty;
  if (EFI_ERROR(outcome.Status = Exchange(http.Get(), sent, true, TimeoutMs)))
    return outcome;

  EFI_HTTP_RESPONSE_DATA answer = {};
  EFI_HTTP_MESSAGE received = {};
  received.Data.Response = &answer;
  outcome.Status = Exchange(http.Get(), received, false, TimeoutMs);
  FreeHeaders(received.Headers, received.HeaderCount);
  // An answer of 300 or more ends the token with the firmware's HTTP error, its code still given.
  if (!EFI_ERROR(outcome.Status) || outcome.Status == EFI_HTTP_ERROR) {
    outcome.Answered = true;
    outcome.HttpCode = HttpStatusNumber(answer.StatusCode);
    if (outcome.HttpCode < 200 || outcome.HttpCode > 299)
      outcome.Status = EFI_HTTP_ERROR;
  }
  return outcome;
}
