#include "ping/Ipv6Packets.h"

#include "base/Ipv6Text.h"

namespace {

constexpr UINTN kIpv6HeaderBytes = 40;
constexpr UINT16 kDhcp6ServerPort = 547, kDhcp6ClientPort = 546;
constexpr UINT16 kDhcp6OptionIaNa = 3, kDhcp6OptionIaAddress = 5, kDhcp6OptionStatus = 13;
constexpr UINT8 kNdOptionSourceLinkAddress = 1, kNdOptionPrefix = 3;

UINT16 Get16(const UINT8* P) {
  return UINT16(P[0] << 8 | P[1]);
}
UINT32 Get32(const UINT8* P) {
  return UINT32(P[0]) << 24 | UINT32(P[1]) << 16 | UINT32(P[2]) << 8 | P[3];
}
void Put16(UINT8* P, UINT16 V) {
  P[0] = UINT8(V >> 8);
  P[1] = UINT8(V);
}
EFI_IPv6_ADDRESS AddressAt(const UINT8* P) {
  EFI_IPv6_ADDRESS a;
  for (UINTN i = 0; i < 16; ++i) {
    a.Addr[i] = P[i];
  }
  return a;
}

UINT32 SumWords(UINT32 Sum, const UINT8* Data, UINTN Length) {
  for (UINTN i = 0; i + 1 < Length; i += 2) {
    Sum += Get16(Data + i);
  }
  if (Length % 2) {
    Sum += UINT32(Data[Length - 1]) << 8;
  }
  return Sum;
}

void ReadRouterAdvertisement(const UINT8* M, UINTN Length, Ipv6Packet* Out) {
  if (Length < 16) {
    Out->Flaw = u"a router advertisement shorter than its fixed part";
    return;
  }
  RouterAdvertisement& ra = Out->Ra;
  ra.HopLimit = M[4];
  ra.Managed = (M[5] & 0x80) != 0;
  ra.Other = (M[5] & 0x40) != 0;
  ra.Lifetime = Get16(M + 6);
  Out->Kind = Ipv6PacketKind::RouterAdvertisement;
  for (UINTN at = 16; at < Length;) {
    if (Length - at < 2) {
      Out->Flaw = u"a router advertisement option cut short";
      return;
    }
    UINTN bytes = UINTN(M[at + 1]) * 8;
    if (bytes == 0) {
      Out->Flaw = u"a router advertisement option of length 0";
      return;
    }
    if (bytes > Length - at) {
      Out->Flaw = u"a router advertisement option that overruns the message";
      return;
    }
    const UINT8* o = M + at;
    if (o[0] == kNdOptionPrefix) {
      if (bytes != 32) {
        Out->Flaw = u"a prefix option of the wrong length";
      } else if (o[2] > 128) {
        Out->Flaw = u"a prefix longer than 128 bits";
      } else if (ra.PrefixCount < kMaxAdvertisedPrefixes) {
        Ipv6Prefix& p = ra.Prefixes[ra.PrefixCount++];
        p.Length = o[2];
        p.OnLink = (o[3] & 0x80) != 0;
        p.Autonomous = (o[3] & 0x40) != 0;
        p.ValidLifetime = Get32(o + 4);
        p.PreferredLifetime = Get32(o + 8);
        p.Prefix = AddressAt(o + 16);
      }
    } else if (o[0] == kNdOptionSourceLinkAddress && bytes != 8) {
      Out->Flaw = u"a link-layer address option of the wrong length";
    }
    at += bytes;
  }
}

void ReadDhcp6Options(const UINT8* O, UINTN Length, Ipv6Packet* Out, UINTN Depth) {
  for (UINTN at = 0; at < Length;) {
    if (Length - at < 4) {
      Out->Flaw = u"a DHCPv6 option cut short";
      return;
    }
    UINT16 code = Get16(O + at);
    UINTN bytes = Get16(O + at + 2);
    if (bytes > Length - at - 4) {
      Out->Flaw = u"a DHCPv6 option that overruns its message";
      return;
    }
    const UINT8* data = O + at + 4;
    if (code == kDhcp6OptionStatus && bytes >= 2) {
      Out->Dhcp6Status = Get16(data);
    } else if (code == kDhcp6OptionIaNa && Depth == 0) {
      if (bytes < 12) {
        Out->Flaw = u"an IA_NA option shorter than 12 bytes";
      } else {
        ReadDhcp6Options(data + 12, bytes - 12, Out, Depth + 1);
      }
    } else if (code == kDhcp6OptionIaAddress && Depth == 1) {
      if (bytes < 24) {
        Out->Flaw = u"an IA address option shorter than 24 bytes";
      } else {
        Out->Target = AddressAt(data);
        Out->HasTarget = true;
        ReadDhcp6Options(data + 24, bytes - 24, Out, Depth + 1);
      }
    }
    if (Out->Flaw != nullptr) {
      return;
    }
    at += 4 + bytes;
  }
}

} // namespace

UINT16 Ipv6Checksum(const EFI_IPv6_ADDRESS& Source, const EFI_IPv6_ADDRESS& Destination, UINT8 NextHeader,
                    const UINT8* Data, UINTN Length) {
  UINT32 sum = SumWords(0, Source.Addr, 16);
  sum = SumWords(sum, Destination.Addr, 16);
  sum += UINT32(Length >> 16) + UINT32(Length & 0xFFFF) + NextHeader;
  sum = SumWords(sum, Data, Length);
  while (sum >> 16) {
    sum = (sum & 0xFFFF) + (sum >> 16);
  }
  return UINT16(~sum);
}

void ReadIpv6Packet(const UINT8* Packet, UINTN Length, Ipv6Packet* Out) {
  *Out = {};
  if (Packet == nullptr || Length < kIpv6HeaderBytes || (Packet[0] >> 4) != 6) {
    return;
  }
  UINTN payload = Get16(Packet + 4);
  if (payload > Length - kIpv6HeaderBytes) {
    Out->Flaw = u"an IPv6 payload longer than the frame";
    return;
  }
  UINT8 next = Packet[6], hops = Packet[7];
  Out->Source = AddressAt(Packet + 8);
  EFI_IPv6_ADDRESS destination = AddressAt(Packet + 24);
  const UINT8* m = Packet + kIpv6HeaderBytes;
  if (next == IP6_NEXT_HEADER_ICMP) {
    if (payload < 8) {
      return;
    }
    if (Ipv6Checksum(Out->Source, destination, next, m, payload) != 0) {
      Out->Flaw = u"an ICMPv6 checksum that does not match";
      return;
    }
    // Neighbour discovery counts only from the link itself (hop limit 255).
    if (hops != 255 || m[1] != 0) {
      return;
    }
    if (m[0] == kIcmp6RouterAdvertisement) {
      if (!IsLinkLocalIpv6(Out->Source)) {
        Out->Flaw = u"a router advertisement from an address that is not link-local";
        return;
      }
      ReadRouterAdvertisement(m, payload, Out);
    } else if (m[0] == kIcmp6NeighborAdvertisement) {
      if (payload < 24) {
        Out->Flaw = u"a neighbour advertisement shorter than 24 bytes";
        return;
      }
      Out->Kind = Ipv6PacketKind::NeighborAdvertisement;
      Out->Target = AddressAt(m + 8);
      Out->HasTarget = true;
    }
    return;
  }
  if (next == IP6_NEXT_HEADER_UDP && payload >= 12 && Get16(m) == kDhcp6ServerPort &&
      Get16(m + 2) == kDhcp6ClientPort) {
    UINTN udp = Get16(m + 4);
    if (udp < 12 || udp > payload) {
      Out->Flaw = u"a UDP length that does not fit the packet";
      return;
    }
    if (Get16(m + 6) != 0 && Ipv6Checksum(Out->Source, destination, next, m, udp) != 0) {
      Out->Flaw = u"a UDP checksum that does not match";
      return;
    }
    UINT8 type = m[8];
    if (type != kDhcp6Advertise && type != kDhcp6Reply) {
      return;
    }
    Out->Kind = Ipv6PacketKind::Dhcp6Answer;
    Out->Dhcp6Type = type;
    ReadDhcp6Options(m + 12, udp - 12, Out, 0);
  }
}

namespace {

// The IPv6 header and ICMPv6 message of a solicitation from the unspecified address.
UINTN BuildSolicitation(UINT8* Packet, UINTN Size, UINTN Bytes, const EFI_IPv6_ADDRESS& Destination,
                        UINT8 Type, const EFI_IPv6_ADDRESS* Target, EFI_MAC_ADDRESS* Mac) {
  if (Packet == nullptr || Size < Bytes) {
    return 0;
  }
  for (UINTN i = 0; i < Bytes; ++i) {
    Packet[i] = 0;
  }
  UINTN message = Bytes - kIpv6HeaderBytes;
  Packet[0] = 0x60;
  Put16(Packet + 4, UINT16(message));
  Packet[6] = IP6_NEXT_HEADER_ICMP;
  Packet[7] = 255;
  for (UINTN i = 0; i < 16; ++i) {
    Packet[24 + i] = Destination.Addr[i];
  }
  UINT8* m = Packet + kIpv6HeaderBytes;
  m[0] = Type;
  if (Target != nullptr) {
    for (UINTN i = 0; i < 16; ++i) {
      m[8 + i] = Target->Addr[i];
    }
  }
  EFI_IPv6_ADDRESS unspecified = {};
  Put16(m + 2, Ipv6Checksum(unspecified, Destination, IP6_NEXT_HEADER_ICMP, m, message));
  if (Mac != nullptr) {
    *Mac = {};
    Mac->Addr[0] = 0x33;
    Mac->Addr[1] = 0x33;
    for (UINTN i = 0; i < 4; ++i) {
      Mac->Addr[2 + i] = Destination.Addr[12 + i];
    }
  }
  return Bytes;
}

} // namespace

UINTN BuildRouterSolicitation(UINT8* Packet, UINTN Size, EFI_MAC_ADDRESS* Destination) {
  EFI_IPv6_ADDRESS allRouters = {{0xFF, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02}};
  return BuildSolicitation(Packet, Size, kRouterSolicitationBytes, allRouters, kIcmp6RouterSolicitation,
                           nullptr, Destination);
}

UINTN BuildDuplicateProbe(UINT8* Packet, UINTN Size, const EFI_IPv6_ADDRESS& Target,
                          EFI_MAC_ADDRESS* Destination) {
  EFI_IPv6_ADDRESS group = {{0xFF, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0xFF, 0, 0, 0}};
  for (UINTN i = 13; i < 16; ++i) {
    group.Addr[i] = Target.Addr[i];
  }
  return BuildSolicitation(Packet, Size, kNeighborSolicitationBytes, group, kIcmp6NeighborSolicitation,
                           &Target, Destination);
}

void InterfaceIdFromMac(const EFI_MAC_ADDRESS& Mac, UINT8 Id[8]) {
  Id[0] = Mac.Addr[0] ^ 0x02;
  Id[1] = Mac.Addr[1];
  Id[2] = Mac.Addr[2];
  Id[3] = 0xFF;
  Id[4] = 0xFE;
  Id[5] = Mac.Addr[3];
  Id[6] = Mac.Addr[4];
  Id[7] = Mac.Addr[5];
}

EFI_IPv6_ADDRESS AddressWithInterfaceId(const EFI_IPv6_ADDRESS& Prefix, const UINT8 Id[8]) {
  EFI_IPv6_ADDRESS a = Prefix;
  for (UINTN i = 0; i < 8; ++i) {
    a.Addr[8 + i] = Id[i];
  }
  return a;
}

bool SamePrefix(const EFI_IPv6_ADDRESS& A, const EFI_IPv6_ADDRESS& B, UINT8 Length) {
  if (Length > 128) {
    return false;
  }
  UINTN whole = Length / 8;
  for (UINTN i = 0; i < whole; ++i) {
    if (A.Addr[i] != B.Addr[i]) {
      return false;
    }
  }
  UINT8 rest = Length % 8;
  if (rest == 0) {
    return true;
  }
  UINT8 mask = UINT8(0xFF << (8 - rest));
  return (A.Addr[whole] & mask) == (B.Addr[whole] & mask);
}
