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

bool UploadFolder(const CHAR16* BaseUrl, const CHAR16* Machine, const EFI_TIME& Start, UINT16 Tag,
                  CHAR16* Out, UINTN OutSize) {
  UINTN length = StrLen(BaseUrl);
  const CHAR16* slash = length > 0 && BaseUrl[length - 1] == u'/' ? u"" : u"/";
  UINTN written = SPrint(Out, OutSize, u"%s%s%s/%04d%02d%02d-%02d%02d%02d-%05d/", BaseUrl, slash, Machine,
                         Start.Year, Start.Month, Start.Day, Start.Hour, Start.Minute, Start.Second, Tag);
  return Fits(written + kUploadNameChars, OutSize);
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
  HttpExchange* sent = nullptr;
  HttpExchange* received = nullptr;
  wc::ScopeGuard release([&] {
    FreeHttpExchange(sent);
    FreeHttpExchange(received);
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

  if (EFI_ERROR(outcome.Status = NewHttpExchange(&sent)))
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
  AsciiStrCopyCut(sent->Host, sizeof(sent->Host), host);
  AsciiStrCopyCut(sent->Type, sizeof(sent->Type), ContentType);
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
  if (EFI_ERROR(outcome.Status = AwaitHttpExchange(http.Get(), sent, true, TimeoutMs, Bound)))
    return outcome;

  if (EFI_ERROR(outcome.Status = NewHttpExchange(&received)))
    return outcome;
  received->Message.Data.Response = &received->Response;
  outcome.Status = AwaitHttpExchange(http.Get(), received, false, TimeoutMs, Bound);
  // An answer of 300 or more ends the token with the firmware's HTTP error, its code still given.
  if (received != nullptr && (!EFI_ERROR(outcome.Status) || outcome.Status == EFI_HTTP_ERROR)) {
    outcome.Answered = true;
    outcome.HttpCode = HttpStatusNumber(received->Response.StatusCode);
    if (outcome.HttpCode < 200 || outcome.HttpCode > 299)
      outcome.Status = EFI_HTTP_ERROR;
  }
  return outcome;
}
