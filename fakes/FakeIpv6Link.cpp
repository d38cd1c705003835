// The fake's link: the frames of IPv6 that the module's watch takes and sends through the NIC's
// managed network (advertisements, neighbour claims, DHCPv6 answers), and their checksums.
#include "fakes/FakeIpv6.h"

#include <cstring>

namespace {

using fake6::F;
using fake6::kReplyDelay;
using fake6::V;

// An IPv6 packet from src to dst with this payload, its checksum at checksumAt within the payload.
std::vector<UINT8> Packet(const EFI_IPv6_ADDRESS& src, const EFI_IPv6_ADDRESS& dst, UINT8 next, UINT8 hops,
                          std::vector<UINT8> payload, size_t checksumAt) {
  UINT16 sum = FakeIpv6::Checksum(src, dst, next, payload.data(), payload.size());
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
  if (FakeIpv6::Checksum(unspecified, dst, 58, p + 40, frame.size() - 40) != 0)
    return status; // a solicitation with a bad checksum goes unanswered, as on a real link
  if (p[40] == 133) {
    ++v.solicitations;
    if (v.router)
      v.QueueAdvertisement();
  } else if (p[40] == 135 && frame.size() >= 64) {
    ++v.probes;
    EFI_IPv6_ADDRESS target;
    std::memcpy(target.Addr, p + 48, 16);
    if (v.neighborHoldsLinkLocal && std::memcmp(target.Addr, v.LinkLocal().Addr, 16) == 0) {
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

} // namespace

// The ICMPv6/UDP checksum over the pseudo-header, written here from RFC 8200 rather than taken from
// the module, so that a checksum the module gets wrong shows.
UINT16 FakeIpv6::Checksum(const EFI_IPv6_ADDRESS& src, const EFI_IPv6_ADDRESS& dst, UINT8 next,
                          const UINT8* data, size_t length) {
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

void FakeIpv6::TakeOverManagedNetwork() {
  mnpBefore = nic.mnp.p;
  nic.mnp.p.Configure = MnpConfigure6;
  nic.mnp.p.Groups = MnpGroups;
  nic.mnp.p.Transmit = MnpTransmit6;
  nic.mnp.p.Receive = MnpReceive;
  nic.mnp.p.Cancel = MnpCancel6;
  nic.mnp.p.Poll = MnpPoll6;
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

void FakeIpv6::QueueDhcp6Reply() {
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
  frames.push_back({F().now + 2 * slaacDelay, Packet(server, LinkLocal(), 17, 64, udp, 6)});
}
