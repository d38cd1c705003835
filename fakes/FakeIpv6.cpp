#include "fakes/FakeIpv6.h"

#include <cstring>

namespace {

FakeFirmware& F() {
  return *FakeFirmware::current;
}
FakeIpv6& V() {
  return *FakeIpv6::current;
}

constexpr UINT64 kReplyDelay = 20000; // 2 ms

bool Same(const EFI_IPv6_ADDRESS& a, const EFI_IPv6_ADDRESS& b) {
  return std::memcmp(a.Addr, b.Addr, 16) == 0;
}

// The ICMPv6/UDP checksum over the pseudo-header, written here from RFC 8200 rather than taken from
// the module, so that a checksum the module gets wrong shows.
UINT16 Checksum(const EFI_IPv6_ADDRESS& src, const EFI_IPv6_ADDRESS& dst, UINT8 next, const UINT8* data,
                size_t length) {
  UINT64 sum = 0;
  auto add = [&](const UINT8* p, size_t n) {
    for (size_t i = 0; i < n; ++i)
      sum += (i % 2 == 0) ? UINT64(p[i]) << 8 : p[i];
  };
  add(src.Addr, 16);
  add(dst.Addr, 16);
  sum += length + next;
  add(data, length);
  while (sum >> 16)
    sum = (sum & 0xFFFF) + (sum >> 16);
  return UINT16(~sum);
}

// An IPv6 packet from src to dst with this payload, its checksum at checksumAt within the payload.
std::vector<UINT8> Packet(const EFI_IPv6_ADDRESS& src, const EFI_IPv6_ADDRESS& dst, UINT8 next, UINT8 hops,
                          std::vector<UINT8> payload, size_t checksumAt) {
  UINT16 sum = Checksum(src, dst, next, payload.data(), payload.size());
  payload[checksumAt] = UINT8(sum >> 8);
  payload[checksumAt + 1] = UINT8(sum);
  std::vector<UINT8> p = {0x60, 0, 0, 0, UINT8(payload.size() >> 8), UINT8(payload.size()), next, hops};
  p.insert(p.end(), src.Addr, src.Addr + 16);
  p.insert(p.end(), dst.Addr, dst.Addr + 16);
  p.insert(p.end(), payload.begin(), payload.end());
  return p;
}

constexpr EFI_IPv6_ADDRESS kAllNodes = {{0xFF, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};

void Put32(std::vector<UINT8>& v, UINT32 x) {
  v.insert(v.end(), {UINT8(x >> 24), UINT8(x >> 16), UINT8(x >> 8), UINT8(x)});
}

// ---- Managed network, for IPv6 frames ----

EFI_STATUS EFIAPI MnpGroups(EFI_MANAGED_NETWORK_PROTOCOL*, BOOLEAN, EFI_MAC_ADDRESS*) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  return V().nic.mnpConfigured ? EFI_SUCCESS : EFI_NOT_STARTED;
}

EFI_STATUS EFIAPI MnpReceive(EFI_MANAGED_NETWORK_PROTOCOL*, EFI_MANAGED_NETWORK_COMPLETION_TOKEN* token) {
  if (F().Fail())
    return EFI_DEVICE_ERROR;
  FakeIpv6& v = V();
  if (!v.nic.mnpConfigured)
    return EFI_NOT_STARTED;
  if (token == nullptr || token->Event == nullptr)
    return EFI_INVALID_PARAMETER;
  v.mnpRx = token;
  return EFI_SUCCESS;
}

void AbortMnpReceive() {
  FakeIpv6& v = V();
  if (v.mnpRx != nullptr) {
    v.mnpRx->Status = EFI_ABORTED;
    F().bs.SignalEvent(v.mnpRx->Event);
    v.mnpRx = nullptr;
  }
}

EFI_STATUS EFIAPI MnpConfigure6(EFI_MANAGED_NETWORK_PROTOCOL* self, EFI_MANAGED_NETWORK_CONFIG_DATA* config) {
  if (config == nullptr)
    AbortMnpReceive();
  return V().mnpBefore.Configure(self, config);
}

EFI_STATUS EFIAPI MnpCancel6(EFI_MANAGED_NETWORK_PROTOCOL* self,
                             EFI_MANAGED_NETWORK_COMPLETION_TOKEN* token) {
  if (token == nullptr || token == V().mnpRx)
    AbortMnpReceive();
  return V().mnpBefore.Cancel(self, token);
}

EFI_STATUS EFIAPI MnpTransmit6(EFI_MANAGED_NETWORK_PROTOCOL* self,
                               EFI_MANAGED_NETWORK_COMPLETION_TOKEN* token) {
  FakeIpv6& v = V();
  // Read before the frame goes: its completion may free what the token points at.
  std::vector<UINT8> frame;
  if (token != nullptr && token->Packet.TxData != nullptr && token->Packet.TxData->ProtocolType == 0x86DD) {
    const auto& fragment = token->Packet.TxData->FragmentTable[0];
    const auto* bytes = static_cast<const UINT8*>(fragment.FragmentBuffer);
    frame.assign(bytes, bytes + fragment.FragmentLength);
  }
  EFI_STATUS status = v.mnpBefore.Transmit(self, token);
  if (EFI_ERROR(status) || frame.size() < 48 || frame[6] != 58)
    return status;
  const UINT8* p = frame.data();
  EFI_IPv6_ADDRESS unspecified = {}, dst;
  std::memcpy(dst.Addr, p + 24, 16);
  if (Checksum(unspecified, dst, 58, p + 40, frame.size() - 40) != 0)
    return status; // a solicitation with a bad checksum goes unanswered, as on a real link
  if (p[40] == 133) {
    ++v.solicitations;
    if (v.router)
      v.QueueAdvertisement();
  } else if (p[40] == 135 && frame.size() >= 64) {
    ++v.probes;
    EFI_IPv6_ADDRESS target;
    std::memcpy(target.Addr, p + 48, 16);
    if (v.neighborHoldsLinkLocal && Same(target, v.LinkLocal())) {
      std::vector<UINT8> na = {136, 0, 0, 0, 0x20, 0, 0, 0};
      na.insert(na.end(), target.Addr, target.Addr + 16);
      EFI_IPv6_ADDRESS from = target;
      v.frames.push_back({F().now + kReplyDelay, Packet(from, kAllNodes, 58, 255, na, 2)});
    }
  }
  return status;
}

EFI_STATUS EFIAPI MnpPoll6(EFI_MANAGED_NETWORK_PROTOCOL* self) {
  EFI_STATUS status = V().mnpBefore.Poll(self);
  FakeIpv6& v = V();
  if (EFI_ERROR(status) || v.mnpRx == nullptr || v.frames.empty() || v.frames.front().first > F().now)
    return status;
  v.mnpFrame = std::move(v.frames.front().second);
  v.frames.pop_front();
  // A neighbour advertisement comes from the neighbour, everything else from the router.
  bool fromNeighbor = v.mnpFrame.size() > 40 && v.mnpFrame[40] == 136;
  v.mnpRxData = {};
  v.mnpRxData.PacketLength = UINT32(v.mnpFrame.size() + 14);
  v.mnpRxData.HeaderLength = 14;
  v.mnpRxData.AddressLength = 6;
  v.mnpRxData.DataLength = UINT32(v.mnpFrame.size());
  v.mnpRxData.MulticastFlag = TRUE;
  v.mnpRxData.ProtocolType = 0x86DD;
  v.mnpRxData.SourceAddress = fromNeighbor ? v.neighborMac.Addr : v.routerMac.Addr;
  v.mnpRxData.PacketData = v.mnpFrame.data();
  v.mnpRx->Packet.RxData = &v.mnpRxData;
  v.mnpRx->Status = EFI_SUCCESS;
  F().bs.SignalEvent(v.mnpRx->Event);
  v.mnpRx = nullptr;
  return status;
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
  v.badEchoChecksums += Checksum(v.station, tx.DestinationAddress, 58, m, f.FragmentLength) != 0;
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
  if (v.policy == Ip6ConfigPolicyAutomatic && v.router && v.managed && v.dhcp6Answers) {
    // The firmware's DHCPv6 exchange: the reply, with its address, reaches the link.
    std::vector<UINT8> udp = {0x02, 0x23, 0x02, 0x22, 0, 0, 0, 0, 7, 1, 2, 3};
    std::vector<UINT8> ia = {0, 3, 0, 40, 0, 0, 0, 1};
    Put32(ia, 3600);
    Put32(ia, 5400);
    ia.insert(ia.end(), {0, 5, 0, 24});
    ia.insert(ia.end(), kFakeDhcp6Address.Addr, kFakeDhcp6Address.Addr + 16);
    Put32(ia, 7200);
    Put32(ia, 7200);
    udp.insert(udp.end(), ia.begin(), ia.end());
    udp[4] = UINT8(udp.size() >> 8);
    udp[5] = UINT8(udp.size());
    EFI_IPv6_ADDRESS server = {{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}};
    v.frames.push_back({F().now + 2 * v.slaacDelay, Packet(server, v.LinkLocal(), 17, 64, udp, 6)});
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ConfigNotify(EFI_IP6_CONFIG_PROTOCOL*, EFI_IP6_CONFIG_DATA_TYPE, EFI_EVENT) {
  return EFI_UNSUPPORTED;
}

EFI_STATUS EFIAPI CreateIp6Child(EFI_SERVICE_BINDING_PROTOCOL* self, EFI_HANDLE* child) {
  if (F().Fail())
    return EFI_OUT_OF_RESOURCES;
  auto* b = reinterpret_cast<FakeBinding*>(self);
  static uintptr_t next = 0xA00000;
  EFI_HANDLE h = reinterpret_cast<EFI_HANDLE>(next += 16);
  F().AddProtocol(h, b->childGuid, b->childProtocol);
  b->children.push_back(h);
  *child = h;
  return EFI_SUCCESS;
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
  mnpBefore = nic.mnp.p;
  nic.mnp.p.Configure = MnpConfigure6;
  nic.mnp.p.Groups = MnpGroups;
  nic.mnp.p.Transmit = MnpTransmit6;
  nic.mnp.p.Receive = MnpReceive;
  nic.mnp.p.Cancel = MnpCancel6;
  nic.mnp.p.Poll = MnpPoll6;
  ip6.ipv6 = config.ipv6 = this;
  ip6.p = {nullptr, Ip6Configure, nullptr, nullptr, nullptr, Ip6Transmit, Ip6Receive, Ip6Cancel, Ip6Poll};
  config.p = {ConfigSetData, ConfigGetData, ConfigNotify, ConfigNotify};
  binding = {{CreateIp6Child, DestroyIp6Child}, &nic, EFI_IP6_PROTOCOL_GUID, &ip6.p, {}};
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

void FakeIpv6::QueueAdvertisement() {
  auto ra = [&](bool zeroLengthOption) {
    std::vector<UINT8> m = {
        134, 0, 0, 0, 64, UINT8(managed ? 0x80 : 0), UINT8(routerLifetime >> 8), UINT8(routerLifetime)};
    Put32(m, 0);
    Put32(m, 0);
    if (zeroLengthOption)
      m.insert(m.end(), {1, 0, 0, 0, 0, 0, 0, 0});
    m.insert(m.end(), {1, 1});
    m.insert(m.end(), routerMac.Addr, routerMac.Addr + 6);
    if (slaacPrefix) {
      m.insert(m.end(), {3, 4, 64, 0xC0});
      Put32(m, 86400);
      Put32(m, 14400);
      Put32(m, 0);
      m.insert(m.end(), kFakePrefix6.Addr, kFakePrefix6.Addr + 16);
    }
    return Packet(kFakeRouter6, kAllNodes, 58, 255, m, 2);
  };
  if (malformedFirst)
    frames.push_back({F().now + kReplyDelay, ra(true)});
  frames.push_back({F().now + kReplyDelay, ra(false)});
}
