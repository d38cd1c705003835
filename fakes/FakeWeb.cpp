#include "fakes/FakeWeb.h"

#include <cstring>

#include "base/Memory.h"
#include "fakes/FakeFirmware.h"

FakeWeb* FakeWeb::current = nullptr;

namespace {

FakeFirmware& F() {
  return *FakeFirmware::current;
}

FakeWeb& W() {
  return *FakeWeb::current;
}

CHAR8* PoolText(const std::string& text) {
  return static_cast<CHAR8*>(AllocateCopyPool(text.size() + 1, text.c_str()));
}

// ---- DNS ----

EFI_STATUS EFIAPI DnsConfigure(EFI_DNS4_PROTOCOL*, EFI_DNS4_CONFIG_DATA* config) {
  if (config == nullptr)
    return EFI_SUCCESS;
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  return config->DnsServerListCount > 0 && config->DnsServerList != nullptr ? EFI_SUCCESS
                                                                            : EFI_INVALID_PARAMETER;
}

EFI_STATUS EFIAPI DnsHostNameToIp(EFI_DNS4_PROTOCOL*, CHAR16* name, EFI_DNS4_COMPLETION_TOKEN* token) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  if (token == nullptr || token->Event == nullptr || name == nullptr)
    return EFI_INVALID_PARAMETER;
  std::string asked;
  for (const CHAR16* c = name; *c != 0; ++c)
    asked += char(*c);
  W().lookedUp.push_back(asked);
  if (!W().dnsAnswers) {
    W().dnsPending = token;
    return EFI_SUCCESS;
  }
  if (asked != W().knownName) {
    token->Status = EFI_NOT_FOUND;
    return EFI_SUCCESS;
  }
  // The answer is the caller's to free, list and all.
  auto* data = static_cast<DNS_HOST_TO_ADDR_DATA*>(AllocateZeroPool(sizeof(DNS_HOST_TO_ADDR_DATA)));
  auto* list = static_cast<EFI_IPv4_ADDRESS*>(AllocateZeroPool(sizeof(EFI_IPv4_ADDRESS)));
  if (data == nullptr || list == nullptr) {
    FreePool(data);
    FreePool(list);
    token->Status = EFI_OUT_OF_RESOURCES;
    return EFI_SUCCESS;
  }
  *list = {{10, 0, 2, 2}};
  data->IpCount = 1;
  data->IpList = list;
  token->RspData.H2AData = data;
  token->Status = EFI_SUCCESS;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI DnsPoll(EFI_DNS4_PROTOCOL*) {
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI DnsCancel(EFI_DNS4_PROTOCOL*, EFI_DNS4_COMPLETION_TOKEN* token) {
  if (token == nullptr || token != W().dnsPending)
    return EFI_NOT_FOUND;
  token->Status = EFI_ABORTED;
  W().dnsPending = nullptr;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI DestroyDnsChild(EFI_SERVICE_BINDING_PROTOCOL* self, EFI_HANDLE child) {
  auto* b = reinterpret_cast<FakeBinding*>(self);
  if (std::erase(b->children, child) == 0)
    return EFI_INVALID_PARAMETER;
  if (W().dnsPending != nullptr) { // the firmware withdraws a token its child still held
    W().dnsPending->Status = EFI_ABORTED;
    W().dnsPending = nullptr;
  }
  F().RemoveHandle(child);
  return EFI_SUCCESS;
}

// ---- HTTP ----

EFI_STATUS EFIAPI HttpConfigure(EFI_HTTP_PROTOCOL*, EFI_HTTP_CONFIG_DATA* config) {
  if (config == nullptr)
    return EFI_SUCCESS;
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  W().served = 0;
  W().requested = false;
  W().overIpv6 = config->LocalAddressIsIPv6;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI HttpRequest(EFI_HTTP_PROTOCOL*, EFI_HTTP_TOKEN* token) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  if (token == nullptr || token->Message == nullptr || token->Message->Data.Request == nullptr)
    return EFI_INVALID_PARAMETER;
  std::string url;
  for (const CHAR16* c = token->Message->Data.Request->Url; *c != 0; ++c)
    url += char(*c);
  W().requestedUrls.push_back(url);
  if (EFI_ERROR(W().request))
    return W().request;
  W().requested = true;
  token->Status = EFI_SUCCESS;
  return EFI_SUCCESS;
}

// Copies the next piece of the body into the message: as much as one call gives, what the buffer
// holds, and what is left before a stall or the connection's end.
void NextPiece(EFI_HTTP_MESSAGE* m) {
  FakeWeb& w = W();
  size_t end = std::min({w.body.size(), w.stallAfter, w.closeAfter});
  size_t n = std::min({w.piece, size_t(m->BodyLength), end - std::min(end, w.served)});
  std::memcpy(m->Body, w.body.data() + w.served, n);
  m->BodyLength = n;
  w.served += n;
  F().Advance(w.pieceTime);
}

EFI_STATUS EFIAPI HttpResponse(EFI_HTTP_PROTOCOL*, EFI_HTTP_TOKEN* token) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeWeb& w = W();
  if (token == nullptr || token->Message == nullptr || !w.requested)
    return EFI_INVALID_PARAMETER;
  EFI_HTTP_MESSAGE* m = token->Message;
  if (m->Data.Response != nullptr) {
    m->Data.Response->StatusCode = w.code;
    // The headers are the caller's to free, array and texts.
    std::vector<std::pair<std::string, std::string>> fields = {{"Server", "fake"}};
    if (w.sendLength)
      fields.push_back({"Content-Length", std::to_string(w.body.size())});
    auto* headers = static_cast<EFI_HTTP_HEADER*>(AllocateZeroPool(fields.size() * sizeof(EFI_HTTP_HEADER)));
    if (headers == nullptr)
      return EFI_OUT_OF_RESOURCES;
    for (size_t i = 0; i < fields.size(); ++i) {
      headers[i].FieldName = PoolText(fields[i].first);
      headers[i].FieldValue = PoolText(fields[i].second);
    }
    m->Headers = headers;
    m->HeaderCount = fields.size();
    if (w.code != 3) { // 300 and more end the token with the HTTP error, the code still given
      m->BodyLength = 0;
      token->Status = HttpStatusIsError(w.code) ? EFI_HTTP_ERROR : EFI_SUCCESS;
      return EFI_SUCCESS;
    }
    NextPiece(m);
    token->Status = EFI_SUCCESS;
    return EFI_SUCCESS;
  }
  if (w.served >= w.stallAfter && w.served < w.body.size()) {
    w.pending = token; // nothing more comes
    return EFI_SUCCESS;
  }
  if (w.served >= w.closeAfter && w.served < w.body.size()) {
    m->BodyLength = 0;
    token->Status = EFI_CONNECTION_FIN;
    return EFI_SUCCESS;
  }
  if (w.served >= w.body.size() && !w.sendLength) {
    m->BodyLength = 0;
    token->Status = EFI_CONNECTION_FIN; // the end of a body without a length
    return EFI_SUCCESS;
  }
  NextPiece(m);
  token->Status = EFI_SUCCESS;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI HttpCancel(EFI_HTTP_PROTOCOL*, EFI_HTTP_TOKEN* token) {
  ++W().cancels;
  if (token == nullptr || token != W().pending)
    return EFI_NOT_FOUND;
  token->Status = EFI_ABORTED;
  W().pending = nullptr;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI HttpPoll(EFI_HTTP_PROTOCOL*) {
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI DestroyHttpChild(EFI_SERVICE_BINDING_PROTOCOL* self, EFI_HANDLE child) {
  auto* b = reinterpret_cast<FakeBinding*>(self);
  if (std::erase(b->children, child) == 0)
    return EFI_INVALID_PARAMETER;
  if (W().pending != nullptr) {
    W().pending->Status = EFI_ABORTED;
    W().pending = nullptr;
  }
  F().RemoveHandle(child);
  return EFI_SUCCESS;
}

// ---- hash ----

EFI_STATUS EFIAPI HashInit(const EFI_HASH2_PROTOCOL*, const EFI_GUID* algorithm) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  if (algorithm == nullptr || std::memcmp(algorithm, &EFI_HASH_ALGORITHM_SHA256_GUID, sizeof(EFI_GUID)) != 0)
    return EFI_UNSUPPORTED;
  W().hashChild.state.Reset();
  W().hashChild.started = true;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI HashUpdate(const EFI_HASH2_PROTOCOL*, const UINT8* data, UINTN size) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  if (!W().hashChild.started)
    return EFI_NOT_READY;
  if (EFI_ERROR(W().hashUpdate))
    return W().hashUpdate;
  ++W().hashUpdates;
  W().hashChild.state.Update(data, size);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI HashFinal(const EFI_HASH2_PROTOCOL*, EFI_HASH2_OUTPUT* out) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  if (!W().hashChild.started || out == nullptr)
    return EFI_NOT_READY;
  W().hashChild.state.Final(reinterpret_cast<UINT8(&)[kSha256Bytes]>(out->Sha256Hash));
  W().hashChild.started = false;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI DestroyHashChild(EFI_SERVICE_BINDING_PROTOCOL* self, EFI_HANDLE child) {
  auto* b = reinterpret_cast<FakeBinding*>(self);
  if (std::erase(b->children, child) == 0)
    return EFI_INVALID_PARAMETER;
  W().hashChild.started = false;
  F().RemoveHandle(child);
  return EFI_SUCCESS;
}

} // namespace

void FakeWeb::OfferHash2() {
  hashChild.p = {nullptr, nullptr, HashInit, HashUpdate, HashFinal};
  hash = {{FakeCreateChild, DestroyHashChild}, &nic, EFI_HASH2_PROTOCOL_GUID, &hashChild.p, {}};
  nic.fw.AddProtocol(nic.handle, EFI_HASH2_SERVICE_BINDING_PROTOCOL_GUID, &hash.sb);
}

bool HttpStatusIsError(EFI_HTTP_STATUS_CODE code) {
  return code >= 10 && code < sizeof(kHttpStatusCodes) / sizeof(kHttpStatusCodes[0]);
}

FakeWeb::FakeWeb(FakeNic& n) : nic(n) {
  current = this;
  httpChild = {{nullptr, HttpConfigure, HttpRequest, HttpCancel, HttpResponse, HttpPoll}, this};
  dnsChild = {{nullptr, DnsConfigure, DnsHostNameToIp, nullptr, nullptr, nullptr, DnsPoll, DnsCancel}, this};
  http = {{FakeCreateChild, DestroyHttpChild}, &nic, EFI_HTTP_PROTOCOL_GUID, &httpChild.p, {}};
  dns = {{FakeCreateChild, DestroyDnsChild}, &nic, EFI_DNS4_PROTOCOL_GUID, &dnsChild.p, {}};
  nic.fw.AddProtocol(nic.handle, EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID, &http.sb);
  nic.fw.AddProtocol(nic.handle, EFI_DNS4_SERVICE_BINDING_PROTOCOL_GUID, &dns.sb);
}

FakeWeb::~FakeWeb() {
  for (EFI_HANDLE child : http.children)
    nic.fw.RemoveHandle(child);
  for (EFI_HANDLE child : dns.children)
    nic.fw.RemoveHandle(child);
  for (EFI_HANDLE child : hash.children)
    nic.fw.RemoveHandle(child);
  std::erase_if(nic.fw.protocols, [&](const FakeFirmware::Installed& p) {
    return p.iface == &http.sb || p.iface == &dns.sb || p.iface == &hash.sb;
  });
  current = nullptr;
}
