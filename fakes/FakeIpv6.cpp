#include "fakes/FakeIpv6.h"

#include <cstring>

namespace {

using fake6::F;
using fake6::kReplyDelay;
using fake6::V;

bool Same(const EFI_IPv6_ADDRESS& a, const EFI_IPv6_ADDRESS& b) {
  return std::memcmp(a.Addr, b.Addr, 16) == 0;
}

// ---- IPv6 ----

bool Listed(const EFI_IPv6_ADDRESS& a) {
  FakeIpv6& v = V();
  if (!v.neighborHoldsLinkLocal && Same(a, v.LinkLocal()))
    return true;
  return v.Automatic(v.slaacDelay) && v.router && v.slaacPrefix && Same(a, v.Slaac());
}

void AbortIp6Receive() {
  FakeIpv6& v = V();
  if (v.ip6Rx != nullptr) {
    v.ip6Rx->Status = EFI_ABORTED;
    F().bs.SignalEvent(v.ip6Rx->Event);
    v.ip6Rx = nullptr;
  }
}

EFI_STATUS EFIAPI Ip6Configure(EFI_IP6_PROTOCOL*, EFI_IP6_CONFIG_DATA* config) {
  FakeIpv6& v = V();
  if (config == nullptr) {
    v.childConfigured = false;
    AbortIp6Receive();
    v.replies.clear();
    return EFI_SUCCESS;
  }
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  if (config->DefaultProtocol != 58 || !Listed(config->StationAddress))
    return EFI_INVALID_PARAMETER;
  v.childConfigured = true;
  v.station = config->StationAddress;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Ip6Transmit(EFI_IP6_PROTOCOL*, EFI_IP6_COMPLETION_TOKEN* token) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeIpv6& v = V();
  if (!v.childConfigured)
    return EFI_NOT_STARTED;
  if (token == nullptr || token->Event == nullptr || token->Packet.TxData == nullptr)
    return EFI_INVALID_PARAMETER;
  const EFI_IP6_TRANSMIT_DATA& tx = *token->Packet.TxData;
  const auto& f = tx.FragmentTable[0];
  const auto* m = static_cast<const UINT8*>(f.FragmentBuffer);
  F().CheckLeavesClean(m, f.FragmentLength);
  if (tx.FragmentCount != 1 || f.FragmentLength < 8 || m[0] != 128)
    return EFI_INVALID_PARAMETER;
  v.badEchoChecksums += FakeIpv6::Checksum(v.station, tx.DestinationAddress, 58, m, f.FragmentLength) != 0;
  UINT16 seq = UINT16(m[6] << 8 | m[7]);
  v.echoesSent.push_back(seq);
  bool known = Same(tx.DestinationAddress, kFakeRouter6);
  if (v.echoAnswers && known && v.unanswered.count(seq) == 0) {
    std::vector<UINT8> r(m, m + f.FragmentLength);
    r[0] = 129;
    for (int copies = v.echoTwice ? 2 : 1; copies > 0; --copies)
      v.replies.push_back({F().now + kReplyDelay, r});
  }
  token->Status = EFI_SUCCESS;
  F().bs.SignalEvent(token->Event);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Ip6Receive(EFI_IP6_PROTOCOL*, EFI_IP6_COMPLETION_TOKEN* token) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeIpv6& v = V();
  if (!v.childConfigured)
    return EFI_NOT_STARTED;
  v.ip6Rx = token;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Ip6Cancel(EFI_IP6_PROTOCOL*, EFI_IP6_COMPLETION_TOKEN* token) {
  if (token == nullptr || token == V().ip6Rx)
    AbortIp6Receive();
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Ip6Poll(EFI_IP6_PROTOCOL*) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeIpv6& v = V();
  if (v.ip6Rx == nullptr || v.replies.empty() || v.replies.front().first > F().now)
    return EFI_SUCCESS;
  v.reply = std::move(v.replies.front().second);
  v.replies.pop_front();
  v.ip6RxHeader = {};
  v.ip6RxHeader.NextHeader = 58;
  v.ip6RxHeader.SourceAddress = kFakeRouter6;
  v.ip6RxHeader.DestinationAddress = v.station;
  v.ip6RxData = {};
  v.ip6RxData.Header = &v.ip6RxHeader;
  v.ip6RxData.HeaderLength = 40;
  v.ip6RxData.DataLength = UINT32(v.reply.size());
  v.ip6RxData.FragmentCount = 1;
  v.ip6RxData.FragmentTable[0] = {UINT32(v.reply.size()), v.reply.data()};
  v.ip6Rx->Packet.RxData = &v.ip6RxData;
  v.ip6Rx->Status = EFI_SUCCESS;
  F().bs.SignalEvent(v.ip6Rx->Event);
  v.ip6Rx = nullptr;
  return EFI_SUCCESS;
}

// ---- IPv6 configuration ----

EFI_STATUS EFIAPI ConfigGetData(EFI_IP6_CONFIG_PROTOCOL*, EFI_IP6_CONFIG_DATA_TYPE type, UINTN* size,
                                void* data) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeIpv6& v = V();
  std::vector<UINT8> out;
  if (type == Ip6ConfigDataTypePolicy) {
    out.resize(sizeof(EFI_IP6_CONFIG_POLICY));
    std::memcpy(out.data(), &v.policy, out.size());
  } else if (type == Ip6ConfigDataTypeInterfaceInfo) {
    std::vector<EFI_IP6_ADDRESS_INFO> addresses;
    if (!v.neighborHoldsLinkLocal)
      addresses.push_back({v.LinkLocal(), 64});
    // A duplicate link-local address stops the firmware's IPv6 on the NIC altogether (EDK2).
    if (v.Automatic(v.slaacDelay) && v.router && v.slaacPrefix && !v.neighborHoldsLinkLocal)
      addresses.push_back({v.Slaac(), 64});
    if (v.Automatic(2 * v.slaacDelay) && v.router && v.managed && v.dhcp6Answers)
      addresses.push_back({kFakeDhcp6Address, 128});
    std::vector<EFI_IP6_ROUTE_TABLE> routes;
    if (v.Automatic(v.slaacDelay / 2) && v.router && v.routerLifetime != 0)
      routes.push_back({kFakeRouter6, {}, 0});
    size_t need = sizeof(EFI_IP6_CONFIG_INTERFACE_INFO) + addresses.size() * sizeof(EFI_IP6_ADDRESS_INFO) +
                  routes.size() * sizeof(EFI_IP6_ROUTE_TABLE);
    if (*size < need) {
      *size = need;
      return EFI_BUFFER_TOO_SMALL;
    }
    // As EDK2 lays it out: the arrays follow the record in the caller's buffer.
    auto* info = static_cast<EFI_IP6_CONFIG_INTERFACE_INFO*>(data);
    *info = {};
    info->HwAddressSize = 6;
    std::memcpy(info->HwAddress.Addr, v.nic.mode.CurrentAddress.Addr, 6);
    auto* a = reinterpret_cast<EFI_IP6_ADDRESS_INFO*>(info + 1);
    if (!addresses.empty())
      std::memcpy(static_cast<void*>(a), addresses.data(), addresses.size() * sizeof(EFI_IP6_ADDRESS_INFO));
    auto* r = reinterpret_cast<EFI_IP6_ROUTE_TABLE*>(a + addresses.size());
    if (!routes.empty())
      std::memcpy(static_cast<void*>(r), routes.data(), routes.size() * sizeof(EFI_IP6_ROUTE_TABLE));
    info->AddressInfoCount = UINT32(addresses.size());
    info->AddressInfo = addresses.empty() ? nullptr : a;
    info->RouteCount = UINT32(routes.size());
    info->RouteTable = routes.empty() ? nullptr : r;
    *size = need;
    return EFI_SUCCESS;
  } else {
    return EFI_NOT_FOUND;
  }
  if (*size < out.size()) {
    *size = out.size();
    return EFI_BUFFER_TOO_SMALL;
  }
  std::memcpy(data, out.data(), out.size());
  *size = out.size();
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ConfigSetData(EFI_IP6_CONFIG_PROTOCOL*, EFI_IP6_CONFIG_DATA_TYPE type, UINTN size,
                                void* data) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeIpv6& v = V();
  if (type != Ip6ConfigDataTypePolicy || size != sizeof(EFI_IP6_CONFIG_POLICY))
    return EFI_UNSUPPORTED;
  ++v.policySets;
  std::memcpy(&v.policy, data, size);
  v.automaticSince = v.policy == Ip6ConfigPolicyAutomatic ? F().now : ~0ull;
  if (v.policy == Ip6ConfigPolicyAutomatic && v.router && v.managed && v.dhcp6Answers)
    v.QueueDhcp6Reply(); // the firmware's DHCPv6 exchange: the reply, with its address, reaches the link
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ConfigNotify(EFI_IP6_CONFIG_PROTOCOL*, EFI_IP6_CONFIG_DATA_TYPE, EFI_EVENT) {
  return EFI_UNSUPPORTED;
}

EFI_STATUS EFIAPI DestroyIp6Child(EFI_SERVICE_BINDING_PROTOCOL* self, EFI_HANDLE child) {
  auto* b = reinterpret_cast<FakeBinding*>(self);
  if (std::erase(b->children, child) == 0)
    return EFI_INVALID_PARAMETER;
  Ip6Configure(nullptr, nullptr);
  F().RemoveHandle(child);
  return EFI_SUCCESS;
}

} // namespace

FakeIpv6::FakeIpv6(FakeNic& n) : nic(n) {
  current = this;
  const UINT8 router[6] = {0x52, 0x55, 0x0A, 0, 0, 1}, neighbor[6] = {0x52, 0x54, 0, 0x99, 0x99, 0x99};
  std::memcpy(routerMac.Addr, router, 6);
  std::memcpy(neighborMac.Addr, neighbor, 6);
  TakeOverManagedNetwork();
  ip6.ipv6 = config.ipv6 = this;
  ip6.p = {nullptr, Ip6Configure, nullptr, nullptr, nullptr, Ip6Transmit, Ip6Receive, Ip6Cancel, Ip6Poll};
  config.p = {ConfigSetData, ConfigGetData, ConfigNotify, ConfigNotify};
  binding = {{FakeCreateChild, DestroyIp6Child}, &nic, EFI_IP6_PROTOCOL_GUID, &ip6.p, {}};
  nic.fw.AddProtocol(nic.handle, EFI_IP6_SERVICE_BINDING_PROTOCOL_GUID, &binding.sb);
  nic.fw.AddProtocol(nic.handle, EFI_IP6_CONFIG_PROTOCOL_GUID, &config.p);
}
FakeIpv6::~FakeIpv6() {
  for (EFI_HANDLE child : binding.children)
    nic.fw.RemoveHandle(child);
  nic.mnp.p = mnpBefore;
  current = nullptr;
}

EFI_IPv6_ADDRESS FakeIpv6::LinkLocal() const {
  EFI_IPv6_ADDRESS a = {{0xFE, 0x80}};
  const UINT8* m = nic.mode.CurrentAddress.Addr;
  const UINT8 id[8] = {UINT8(m[0] ^ 2), m[1], m[2], 0xFF, 0xFE, m[3], m[4], m[5]};
  std::memcpy(a.Addr + 8, id, 8);
  return a;
}

EFI_IPv6_ADDRESS FakeIpv6::Slaac() const {
  EFI_IPv6_ADDRESS a = LinkLocal();
  std::memcpy(a.Addr, kFakePrefix6.Addr, 8);
  return a;
}

bool FakeIpv6::Automatic(UINT64 after) const {
  return automaticSince != ~0ull && F().now >= automaticSince + after;
}
