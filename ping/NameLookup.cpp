#include "ping/NameLookup.h"

#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "nic/ServiceChildren.h"
#include "support/Clock.h"
#include "uefi/protocol/Ip4Config2.h"

namespace {

// The DNS servers of the NIC's IPv4 configuration, in pool (null and 0 when it holds none).
UINTN ReadDnsServers(EFI_HANDLE nic, wc::PoolPtr<EFI_IPv4_ADDRESS>& servers) {
  EFI_IP4_CONFIG2_PROTOCOL* config = nullptr;
  if (EFI_ERROR(gBS->HandleProtocol(nic, &EFI_IP4_CONFIG2_PROTOCOL_GUID, reinterpret_cast<void**>(&config))))
    return 0;
  UINTN size = 0;
  if (config->GetData(config, Ip4Config2DataTypeDnsServer, &size, nullptr) != EFI_BUFFER_TOO_SMALL ||
      size < sizeof(EFI_IPv4_ADDRESS))
    return 0;
  servers.Reset(static_cast<EFI_IPv4_ADDRESS*>(AllocateZeroPool(size)));
  if (!servers || EFI_ERROR(config->GetData(config, Ip4Config2DataTypeDnsServer, &size, servers.Get()))) {
    servers.Reset(nullptr);
    return 0;
  }
  return size / sizeof(EFI_IPv4_ADDRESS);
}

} // namespace

LookupResult LookUpHostName(EFI_HANDLE Nic, const CHAR16* Name, UINT32 TimeoutMs) {
  LookupResult r;
  void* binding = nullptr;
  if (EFI_ERROR(gBS->HandleProtocol(Nic, &EFI_DNS4_SERVICE_BINDING_PROTOCOL_GUID, &binding))) {
    r.End = LookupEnd::NoDns;
    r.Status = EFI_UNSUPPORTED;
    return r;
  }
  wc::PoolPtr<EFI_IPv4_ADDRESS> servers;
  r.Servers = ReadDnsServers(Nic, servers);
  if (r.Servers == 0) {
    r.End = LookupEnd::NoServer;
    r.Status = EFI_NOT_FOUND;
    return r;
  }
  r.Server = servers.Get()[0];
  Dns4Child dns;
  if (EFI_ERROR(r.Status = dns.Open(Nic, gImageHandle)))
    return r;
  EFI_DNS4_CONFIG_DATA config = {};
  config.DnsServerListCount = r.Servers;
  config.DnsServerList = servers.Get();
  config.UseDefaultSetting = TRUE; // the NIC's own address
  config.EnableDnsCache = TRUE;    // the HTTP client's lookup of the same name finds the answer there
  config.Protocol = 17;            // UDP
  config.RetryCount = 2;
  config.RetryInterval = 2;
  if (EFI_ERROR(r.Status = dns->Configure(dns.Get(), &config)))
    return r;
  wc::EventOwner done;
  if (EFI_ERROR(r.Status = done.CreateForToken()))
    return r;
  wc::EventOwner timer;
  if (EFI_ERROR(r.Status = timer.Create(EVT_TIMER)) ||
      EFI_ERROR(r.Status = gBS->SetTimer(timer.Get(), TimerRelative, UINT64(TimeoutMs) * 10000)))
    return r;
  EFI_DNS4_COMPLETION_TOKEN token = {};
  token.Event = done.Get();
  token.Status = EFI_NOT_READY;
  UINT64 start = ReadTimeStampCounter();
  if (EFI_ERROR(r.Status = dns->HostNameToIp(dns.Get(), const_cast<CHAR16*>(Name), &token)))
    return r;
  while (token.Status == EFI_NOT_READY && gBS->CheckEvent(timer.Get()) != EFI_SUCCESS)
    dns->Poll(dns.Get());
  if (token.Status == EFI_NOT_READY) {
    // No answer in time: the token is withdrawn (or, where Cancel will not, with the child).
    dns->Cancel(dns.Get(), &token);
    token.Status = EFI_TIMEOUT;
  }
  r.Microseconds = (ReadTimeStampCounter() - start) / TimeStampCounterPerMicrosecond();
  r.Status = token.Status;
  DNS_HOST_TO_ADDR_DATA* answer = token.Status == EFI_SUCCESS ? token.RspData.H2AData : nullptr;
  if (answer != nullptr && answer->IpCount > 0 && answer->IpList != nullptr) {
    r.Address = answer->IpList[0];
    r.End = LookupEnd::Found;
  } else if (token.Status == EFI_SUCCESS) {
    r.Status = EFI_DEVICE_ERROR; // an answer without an address
    r.End = LookupEnd::Failed;
  } else {
    r.End = token.Status == EFI_NOT_FOUND ? LookupEnd::NotFound
            : token.Status == EFI_TIMEOUT ? LookupEnd::NoAnswer
                                          : LookupEnd::Failed;
  }
  // The answer is the caller's to free, as the protocol hands it over.
  if (answer != nullptr) {
    FreePool(answer->IpList);
    FreePool(answer);
  }
  return r;
}
