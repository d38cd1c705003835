#include "ping/HttpExchange.h"

#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "base/Print.h"
#include "base/String.h"

namespace {

// Exchanges whose token the firmware would not cancel; freed once their token has completed.
constinit HttpExchange* gLeftToFirmware = nullptr;

void FreeHeaders(EFI_HTTP_HEADER* headers, UINTN count) {
  if (headers == nullptr)
    return;
  for (UINTN i = 0; i < count; ++i) {
    FreePool(headers[i].FieldName);
    FreePool(headers[i].FieldValue);
  }
  FreePool(headers);
}

// A pending token is cancelled; one the firmware will not give back (Cancel answers Not Found or
// Not Started while its TCP still holds it) is left to it, with its exchange.
void Withdraw(EFI_HTTP_PROTOCOL* http, HttpExchange*& e) {
  if (e->Token.Status == EFI_NOT_READY && EFI_ERROR(http->Cancel(http, &e->Token)) &&
      e->Token.Status == EFI_NOT_READY) {
    e->NextLeft = gLeftToFirmware;
    gLeftToFirmware = e;
    e = nullptr;
  }
}

} // namespace

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

void HttpStatusName(EFI_STATUS Status, CHAR16* Out, UINTN OutSize) {
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

HttpChild::~HttpChild() {
  if (child_ != nullptr)
    binding_->DestroyChild(binding_, child_);
}

EFI_STATUS HttpChild::Create(EFI_HANDLE Service) {
  EFI_STATUS status = gBS->HandleProtocol(Service, &EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID,
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

EFI_STATUS NewHttpExchange(HttpExchange** Out) {
  auto* e = static_cast<HttpExchange*>(AllocateZeroPool(sizeof(HttpExchange)));
  if (e == nullptr)
    return EFI_OUT_OF_RESOURCES;
  EFI_STATUS status = gBS->CreateEvent(0, TPL_CALLBACK, nullptr, nullptr, &e->Token.Event);
  if (EFI_ERROR(status)) {
    e->Token.Event = nullptr;
    FreeHttpExchange(e);
    return status;
  }
  e->Token.Status = EFI_NOT_READY;
  e->Token.Message = &e->Message;
  *Out = e;
  return EFI_SUCCESS;
}

void FreeHttpExchange(HttpExchange* e) {
  if (e == nullptr)
    return;
  // An answer's headers are the firmware's allocations, handed over with the message.
  if (e->Message.Data.Response == &e->Response)
    FreeHeaders(e->Message.Headers, e->Message.HeaderCount);
  if (e->Token.Event != nullptr)
    gBS->CloseEvent(e->Token.Event);
  FreePool(e->Url);
  FreePool(e->Body);
  FreePool(e);
}

EFI_STATUS AwaitHttpExchange(EFI_HTTP_PROTOCOL* Http, HttpExchange*& Exchange, bool Request, UINT32 TimeoutMs,
                             const WaitBound* Bound, EFI_EVENT Timer) {
  EFI_STATUS status =
      Request ? Http->Request(Http, &Exchange->Token) : Http->Response(Http, &Exchange->Token);
  if (EFI_ERROR(status)) {
    Exchange->Token.Status = status; // never queued
    return status;
  }
  wc::EventOwner own;
  if (Timer == nullptr) {
    status = own.Create(EVT_TIMER);
    Timer = own.Get();
  }
  if (EFI_ERROR(status) ||
      EFI_ERROR(status = gBS->SetTimer(Timer, TimerRelative, UINT64(TimeoutMs) * 10000))) {
    Withdraw(Http, Exchange);
    return status;
  }
  while (Exchange->Token.Status == EFI_NOT_READY) {
    Http->Poll(Http);
    bool over = gBS->CheckEvent(Timer) == EFI_SUCCESS || (Bound != nullptr && Bound->Over());
    if (over && Exchange->Token.Status == EFI_NOT_READY) {
      Withdraw(Http, Exchange);
      return EFI_TIMEOUT;
    }
  }
  return Exchange->Token.Status;
}

void ReleaseFinishedExchanges() {
  for (HttpExchange** link = &gLeftToFirmware; *link != nullptr;) {
    HttpExchange* e = *link;
    if (e->Token.Status == EFI_NOT_READY) {
      link = &e->NextLeft;
      continue;
    }
    *link = e->NextLeft;
    FreeHttpExchange(e);
  }
}

UINTN ExchangesLeftToFirmware() {
  UINTN n = 0;
  for (const HttpExchange* e = gLeftToFirmware; e != nullptr; e = e->NextLeft)
    ++n;
  return n;
}
