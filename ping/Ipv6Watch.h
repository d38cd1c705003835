// What the link says about IPv6 while the IPv6 ping test waits for its addresses, watched beside the
// firmware's own stack through a managed-network child that takes IPv6 frames: the router
// advertisements (their flags and prefixes, which the firmware keeps to itself), the neighbour
// advertisements that claim an address, and the DHCPv6 answers. The watch also sends the router
// solicitation and the duplicate-address probe, both from the unspecified address, so that it asks
// nothing of the firmware's stack and changes none of its state.
#pragma once
#include "base/Owners.h"
#include "nic/ServiceChildren.h"
#include "ping/Ipv6Packets.h"

struct NeighborClaim {
  EFI_IPv6_ADDRESS Address;
  EFI_MAC_ADDRESS Mac;
};

constexpr UINTN kMaxNeighborClaims = 8;

struct Ipv6Seen {
  UINT32 Advertisements;   // router advertisements read
  EFI_IPv6_ADDRESS Router; // the last one's source
  RouterAdvertisement Ra;  // and what it said
  UINT32 Claims;           // neighbour advertisements from other link addresses, all counted
  NeighborClaim Claimed[kMaxNeighborClaims]; // the first of them
  UINT32 Dhcp6Answers;
  bool Dhcp6Offered; // an answer handed out an address
  EFI_IPv6_ADDRESS Dhcp6Address;
  UINT16 Dhcp6Status; // the last answer's status code (0: success or none)
  UINT32 Flawed;      // packets with a flaw
  const CHAR16* LastFlaw;
};

class Ipv6Watch {
public:
  Ipv6Watch() = default;
  Ipv6Watch(const Ipv6Watch&) = delete;
  Ipv6Watch& operator=(const Ipv6Watch&) = delete;
  ~Ipv6Watch() { Close(); }

  // Opens the child on the NIC, whose MAC address is Mac (the link address of its own frames,
  // which are not claims), and arms its receive.
  EFI_STATUS Open(EFI_HANDLE Nic, const EFI_MAC_ADDRESS& Mac);
  void Close();
  // Takes what arrived into Seen. A flawed packet is logged the first time its flaw is met.
  void Poll(Ipv6Seen& Seen);
  EFI_STATUS SendRouterSolicitation();
  EFI_STATUS SendDuplicateProbe(const EFI_IPv6_ADDRESS& Target);

  // Records one packet from the link address From into Seen (what Poll does with each frame).
  static void Take(const UINT8* Packet, UINTN Length, const EFI_MAC_ADDRESS& From, const EFI_MAC_ADDRESS& Own,
                   Ipv6Seen& Seen);

private:
  EFI_STATUS Arm();
  EFI_STATUS Send(UINTN Length, EFI_MAC_ADDRESS& Destination);

  wc::EventOwner rxEvent_, txEvent_;
  MnpChild child_;
  EFI_MANAGED_NETWORK_COMPLETION_TOKEN rxToken_ = {}, txToken_ = {};
  EFI_MANAGED_NETWORK_TRANSMIT_DATA txData_ = {};
  EFI_MAC_ADDRESS own_ = {}, destination_ = {};
  UINT8 packet_[kNeighborSolicitationBytes] = {};
  bool rxArmed_ = false, txPending_ = false;
};
