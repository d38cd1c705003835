// The firmware's HTTP client, one exchange at a time: a child of the NIC's HTTP service binding, and
// the request and answer halves whose tokens the firmware may hold after a wait gives up on them.
// VexRun's uploads and the download test share it.
#pragma once
#include "uefi/protocol/Http.h"

// The HTTP status number of the firmware's status position; 0 for a code the firmware does not name.
UINTN HttpStatusNumber(EFI_HTTP_STATUS_CODE Code);

// "host[:port]" of an http:// or https:// URL, for the Host header; false for any other form or
// a host that does not fit.
bool UrlAuthority(const CHAR16* Url, CHAR8* Host, UINTN HostSize);

// The name of a status an HTTP exchange ended with: the network's own statuses and the HTTP error,
// which the module's status table does not carry, then that table's names (%r).
void HttpStatusName(EFI_STATUS Status, CHAR16* Out, UINTN OutSize);

// An HTTP child of one service binding, destroyed with its owner.
class HttpChild {
public:
  HttpChild() = default;
  HttpChild(const HttpChild&) = delete;
  HttpChild& operator=(const HttpChild&) = delete;
  ~HttpChild();
  EFI_STATUS Create(EFI_HANDLE Service);
  EFI_HTTP_PROTOCOL* operator->() const { return http_; }
  EFI_HTTP_PROTOCOL* Get() const { return http_; }

private:
  EFI_SERVICE_BINDING_PROTOCOL* binding_ = nullptr;
  EFI_HANDLE child_ = nullptr;
  EFI_HTTP_PROTOCOL* http_ = nullptr;
};

// A bound on the waits of several exchanges: a one-shot firmware timer whose notify function marks
// the bound as over, so that no wait outlasts it, whichever call was running when it fell due.
class WaitBound {
public:
  WaitBound() = default;
  WaitBound(const WaitBound&) = delete;
  WaitBound& operator=(const WaitBound&) = delete;
  ~WaitBound();
  // A failure leaves no bound (the waits then end by their own time-outs only).
  EFI_STATUS Start(UINT64 Milliseconds);
  bool Over() const { return over_; }

private:
  static void EFIAPI Fire(EFI_EVENT Event, void* Context);
  EFI_EVENT event_ = nullptr;
  volatile bool over_ = false;
};

// One half of an exchange, the request or the answer, with everything the firmware may still write
// into or read from while its token is pending: the token, its message and the message's parts. It
// lives in pool, and its event has no notify function, so that a token the firmware would not
// withdraw can be left to it: a late completion then writes into memory that is still ours and
// signals an event that is still open, whatever the caller has done since.
struct HttpExchange {
  EFI_HTTP_TOKEN Token;
  EFI_HTTP_MESSAGE Message;
  EFI_HTTP_REQUEST_DATA Request;
  EFI_HTTP_RESPONSE_DATA Response;
  EFI_HTTP_HEADER Headers[5];
  CHAR8 Host[128];
  CHAR8 Length[24];
  CHAR8 Type[64];
  CHAR16* Url;
  void* Body;             // the request's body, or the buffer an answer's body is read into
  HttpExchange* NextLeft; // in the list of exchanges left to the firmware
};

// A zeroed exchange with its event, its token waiting (Not Ready).
EFI_STATUS NewHttpExchange(HttpExchange** Out);

// Frees the exchange with its event, its URL, its body and the headers an answer received. Null is
// ignored.
void FreeHttpExchange(HttpExchange* Exchange);

// Sends the request (Request true) or asks for the answer, then polls the child until the token
// completes, TimeoutMs pass or the bound is over (EFI_TIMEOUT). A token still pending is cancelled;
// one the firmware will not give back is left to it with its exchange, which Exchange then no longer
// names (null). Timer, when given, is a timer event of the caller's that the wait sets again, which
// spares a call per piece of a long body the creation of one of its own.
EFI_STATUS AwaitHttpExchange(EFI_HTTP_PROTOCOL* Http, HttpExchange*& Exchange, bool Request, UINT32 TimeoutMs,
                             const WaitBound* Bound = nullptr, EFI_EVENT Timer = nullptr);

// Frees the exchanges left to the firmware whose token has since completed; how many are still left.
void ReleaseFinishedExchanges();
UINTN ExchangesLeftToFirmware();
