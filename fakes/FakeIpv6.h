// The IPv6 side of a FakeNic, as the IPv6 ping test meets it: the IPv6 service binding and the
// IPv6 configuration protocol on the NIC's handle, and a link with one router (fe80::1, prefix
// fd00:1::/64) that answers router solicitations, a DHCPv6 server, a neighbour that may hold the
// NIC's link-local address, and echo replies. It takes over the NIC's managed network for the
// frames of IPv6 (receive, groups, and the solicitations sent), passing everything else on.
#pragma once
#include <deque>
#include <set>
#include <vector>

#include "fakes/FakeNetwork.h"
#include "uefi/protocol/Ip6.h"

struct FakeIpv6 {
  explicit FakeIpv6(FakeNic& nic);
  ~FakeIpv6();
  FakeIpv6(const FakeIpv6&) = delete;
  FakeIpv6& operator=(const FakeIpv6&) = delete;

  FakeNic& nic;

  // The world.
  bool installed = true; // the NIC has the IPv6 service binding and configuration protocol
  bool router = true;    // a router answers solicitations
  UINT16 routerLifetime = 1800;
  bool managed = false;                // the advertisement's M flag
  bool slaacPrefix = true;             // the advertisement carries an autonomous prefix
  bool dhcp6Answers = true;            // a DHCPv6 server gives fd00:1::100 when M is set
  bool neighborHoldsLinkLocal = false; // another node answers for fe80::<interface id>
  bool echoAnswers = true;
  bool echoTwice = false;      // every echo reply sent twice
  std::set<UINT16> unanswered; // echo requests with these sequence numbers get no reply
  bool malformedFirst = false; // a router advertisement with a zero-length option before the good one
  EFI_IP6_CONFIG_POLICY policy = Ip6ConfigPolicyManual;
  UINT64 slaacDelay = 10000000; // 1 s after the policy turns automatic

  // What the module did.
  UINTN policySets = 0, solicitations = 0, probes = 0, badEchoChecksums = 0;
  std::vector<UINT16> echoesSent;
  UINTN LiveChildren() const { return binding.children.size(); }

  // Inner state.
  template <class P> struct Instance {
    P p;
    FakeIpv6* ipv6;
  };
  Instance<EFI_IP6_PROTOCOL> ip6{};
  Instance<EFI_IP6_CONFIG_PROTOCOL> config{};
  FakeBinding binding{};
  EFI_MANAGED_NETWORK_PROTOCOL mnpBefore{};
  UINT64 automaticSince = ~0ull;
  bool childConfigured = false;
  EFI_IPv6_ADDRESS station{};
  // Frames for the managed network's receive, each due at a time.
  std::deque<std::pair<UINT64, std::vector<UINT8>>> frames;
  EFI_MANAGED_NETWORK_COMPLETION_TOKEN* mnpRx = nullptr;
  EFI_MANAGED_NETWORK_RECEIVE_DATA mnpRxData{};
  std::vector<UINT8> mnpFrame;
  EFI_MAC_ADDRESS routerMac{}, neighborMac{};
  // Echo replies for the IPv6 child.
  std::deque<std::pair<UINT64, std::vector<UINT8>>> replies;
  EFI_IP6_COMPLETION_TOKEN* ip6Rx = nullptr;
  EFI_IP6_RECEIVE_DATA ip6RxData{};
  EFI_IP6_HEADER ip6RxHeader{};
  std::vector<UINT8> reply;
  std::vector<UINT8> infoBuffer;

  EFI_IPv6_ADDRESS LinkLocal() const;
  EFI_IPv6_ADDRESS Slaac() const;
  bool Automatic(UINT64 after) const;
  // The link (FakeIpv6Link.cpp): the managed network's calls for IPv6 frames, and the frames the
  // router, the DHCPv6 server and the neighbour send.
  void TakeOverManagedNetwork();
  void QueueAdvertisement();
  void QueueDhcp6Reply();
  static UINT16 Checksum(const EFI_IPv6_ADDRESS& src, const EFI_IPv6_ADDRESS& dst, UINT8 next,
                         const UINT8* data, size_t length);

  static inline FakeIpv6* current = nullptr;
};

// The router's address and prefix, and the address its DHCPv6 server hands out.
inline constexpr EFI_IPv6_ADDRESS kFakeRouter6 = {{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};
inline constexpr EFI_IPv6_ADDRESS kFakePrefix6 = {{0xFD, 0x00, 0, 1}};
inline constexpr EFI_IPv6_ADDRESS kFakeDhcp6Address = {
    {0xFD, 0x00, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0}};

// What both halves of the fake use: the firmware and the IPv6 side in use, and the delay of every
// answer on the link (2 ms).
namespace fake6 {
inline FakeFirmware& F() {
  return *FakeFirmware::current;
}
inline FakeIpv6& V() {
  return *FakeIpv6::current;
}
inline constexpr UINT64 kReplyDelay = 20000;
} // namespace fake6
