// The IPv6 packets the IPv6 ping test reads and writes itself, beside the firmware's stack: router
// advertisements (flags, lifetime, prefixes), neighbour advertisements (whose address a neighbour
// claims), DHCPv6 advertise and reply messages (the address a server hands out), and the router and
// duplicate-address solicitations it sends from the unspecified address. Pure functions of bytes;
// every length comes from the packet and is checked against what arrived.
#pragma once
#include "uefi/protocol/Ip6.h"

constexpr UINT8 kIcmp6EchoRequest = 128;
constexpr UINT8 kIcmp6EchoReply = 129;
constexpr UINT8 kIcmp6RouterSolicitation = 133;
constexpr UINT8 kIcmp6RouterAdvertisement = 134;
constexpr UINT8 kIcmp6NeighborSolicitation = 135;
constexpr UINT8 kIcmp6NeighborAdvertisement = 136;
constexpr UINT8 kDhcp6Advertise = 2;
constexpr UINT8 kDhcp6Reply = 7;
constexpr UINT16 kEtherTypeIpv6 = 0x86DD;

struct Ipv6Prefix {
  EFI_IPv6_ADDRESS Prefix;
  UINT8 Length;
  bool OnLink;
  bool Autonomous;
  UINT32 ValidLifetime;
  UINT32 PreferredLifetime;
};

constexpr UINTN kMaxAdvertisedPrefixes = 4;

struct RouterAdvertisement {
  bool Managed; // M: addresses by DHCPv6
  bool Other;   // O: other configuration by DHCPv6
  UINT8 HopLimit;
  UINT16 Lifetime; // seconds as the default router; 0: not a default router
  UINT8 PrefixCount;
  Ipv6Prefix Prefixes[kMaxAdvertisedPrefixes];
};

enum class Ipv6PacketKind : UINT8 {
  Ignored,               // nothing the test watches for, or not for this node
  RouterAdvertisement,   // Ra
  NeighborAdvertisement, // Target
  Dhcp6Answer,           // Dhcp6Type, and Target when the answer hands out an address
};

struct Ipv6Packet {
  Ipv6PacketKind Kind;
  EFI_IPv6_ADDRESS Source;
  EFI_IPv6_ADDRESS Target;
  bool HasTarget;
  UINT8 Dhcp6Type;
  UINT16 Dhcp6Status; // the status code option's value, 0 when there is none
  RouterAdvertisement Ra;
  // What was wrong with the packet, for the log; null when nothing was. A packet with a flaw still
  // gives what was read before it (a router advertisement is taken up to its first bad option).
  const CHAR16* Flaw;
};

// Reads one IPv6 packet (from its IPv6 header on, Length bytes as they arrived). The ICMPv6 and
// UDP checksums are checked; a packet that fails them is Ignored with its flaw.
void ReadIpv6Packet(const UINT8* Packet, UINTN Length, Ipv6Packet* Out);

// The solicitations the test sends from the unspecified address, hop limit 255, with the ICMPv6
// checksum: to all routers, and to the solicited-node group of Target (duplicate-address detection).
// Each returns the packet's length, 0 when Size is too small. Destination is the multicast MAC.
constexpr UINTN kRouterSolicitationBytes = 48;
constexpr UINTN kNeighborSolicitationBytes = 64;
UINTN BuildRouterSolicitation(UINT8* Packet, UINTN Size, EFI_MAC_ADDRESS* Destination);
UINTN BuildDuplicateProbe(UINT8* Packet, UINTN Size, const EFI_IPv6_ADDRESS& Target,
                          EFI_MAC_ADDRESS* Destination);

// The interface identifier a MAC address gives (modified EUI-64), and the address of a 64-bit prefix
// with it.
void InterfaceIdFromMac(const EFI_MAC_ADDRESS& Mac, UINT8 Id[8]);
EFI_IPv6_ADDRESS AddressWithInterfaceId(const EFI_IPv6_ADDRESS& Prefix, const UINT8 Id[8]);
// TRUE when the first Length bits of A and B are equal (Length up to 128).
bool SamePrefix(const EFI_IPv6_ADDRESS& A, const EFI_IPv6_ADDRESS& B, UINT8 Length);

// The ICMPv6 (or UDP) checksum of Data over the IPv6 pseudo-header.
UINT16 Ipv6Checksum(const EFI_IPv6_ADDRESS& Source, const EFI_IPv6_ADDRESS& Destination, UINT8 NextHeader,
                    const UINT8* Data, UINTN Length);
