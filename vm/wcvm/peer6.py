"""The scripted network's IPv6 side: the router fe80::1 (the peer's router MAC) on fd00:99::/64 sends
router advertisements when solicited, answers neighbour solicitations and ICMPv6 echo for its
addresses, and serves DHCPv6, stateless (information-request) and, when the plan asks, stateful
(IA_NA, fd00:99::15). Each IPv6 fault plan changes one thing; the IPv4 plans leave this side as it
works. Like the rest of the peer it answers the one NIC on the other end of its socket and nothing
else."""
import struct

ROUTER6 = bytes.fromhex("fe800000000000000000000000000001")
ROUTER6_GLOBAL = bytes.fromhex("fd000099000000000000000000000001")
PREFIX6 = bytes.fromhex("fd000099000000000000000000000000")
LEASED6 = bytes.fromhex("fd000099000000000000000000000015")
ALL_NODES = bytes.fromhex("ff020000000000000000000000000001")
ALL_NODES_MAC = bytes.fromhex("333300000001")
UNSPECIFIED = bytes(16)

FAULTS6 = {
    "ra-none": "no router advertisement: solicitations go unanswered",
    "ra-lifetime-0": "router advertisements with a router lifetime of 0 (not a default router)",
    "dhcp6-stateful": "a network that works by DHCPv6: the advertisement sets M, its prefix has no A flag, and "
                      "the server leases fd00:99::15",
    "dhcp6-silent": "the advertisement sets M (its prefix without A), and the DHCPv6 server never answers",
    "dad": "another node holds the NIC's link-local address: the peer defends it against every probe",
    "echo6-drop": "ICMPv6 echo requests go unanswered",
    "echo6-late": "each ICMPv6 echo reply 3 s late",
    "ra-malformed": "before each good advertisement, malformed ones: an option of length 0, a prefix option "
                    "cut short, a prefix longer than 128 bits, an option that overruns the message",
    "dhcp6-malformed": "stateful DHCPv6 whose first answers carry an option that overruns the message, a "
                       "zero-length IA_NA and a truncated address option, each followed by a good answer",
}


def checksum6(src, dst, next_header, data):
    pseudo = src + dst + struct.pack("!IxxxB", len(data), next_header)
    blob = pseudo + data + (b"\0" if len(data) % 2 else b"")
    total = sum(struct.unpack(f"!{len(blob) // 2}H", blob))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def ipv6(src, dst, next_header, payload, hops=255, checksum_at=None):
    if checksum_at is not None:
        value = checksum6(src, dst, next_header, payload)
        payload = payload[:checksum_at] + struct.pack("!H", value) + payload[checksum_at + 2:]
    return struct.pack("!IHBB", 0x60000000, len(payload), next_header, hops) + src + dst + payload


def icmp6(src, dst, kind, body, hops=255):
    return ipv6(src, dst, 58, bytes([kind, 0, 0, 0]) + body, hops, checksum_at=2)


def option(code, data):
    return struct.pack("!HH", code, len(data)) + data


class Ipv6Side:
    def __init__(self, peer):
        self.peer = peer
        self.fault = peer.fault
        self.mac = bytes.fromhex("52550a000201")
        self.duid = struct.pack("!HH", 3, 1) + self.mac
        self.answers = 0

    def frame(self, frame):
        packet = frame[14:]
        if len(packet) < 40 or packet[0] >> 4 != 6:
            return
        length, next_header = struct.unpack("!HB", packet[4:7])
        src, dst, body = packet[8:24], packet[24:40], packet[40:40 + length]
        client_mac = frame[6:12]
        if next_header == 58 and len(body) >= 4:
            self.icmp(client_mac, src, dst, body)
        elif next_header == 17 and len(body) >= 8 and struct.unpack("!H", body[2:4])[0] == 547:
            self.dhcp6(client_mac, src, body[8:])

    def send(self, dst_mac, packet, src_mac=None):
        self.peer.send(dst_mac + (src_mac or self.mac) + b"\x86\xdd" + packet)

    # ---- neighbour discovery and echo ----

    def icmp(self, client_mac, src, dst, body):
        kind = body[0]
        if kind == 133:
            self.peer.note("ipv6 router solicitation")
            if self.fault != "ra-none":
                if self.fault == "ra-malformed":
                    for bad in self.malformed_advertisements():
                        self.send(ALL_NODES_MAC, bad)
                self.send(ALL_NODES_MAC, self.advertisement())
        elif kind == 135 and len(body) >= 24:
            target = body[8:24]
            if target in (ROUTER6, ROUTER6_GLOBAL):
                self.advertise_neighbor(client_mac, src, target, self.mac, solicited=src != UNSPECIFIED)
            elif self.fault == "dad" and src == UNSPECIFIED and target[:8] == ROUTER6[:8]:
                # A probe for a link-local address: another node (this one) already holds it.
                self.peer.note(f"ipv6 defends {target.hex()}")
                self.advertise_neighbor(client_mac, src, target, bytes.fromhex("525400999999"), solicited=False)
        elif kind == 128 and dst in (ROUTER6, ROUTER6_GLOBAL):
            self.peer.note(f"ipv6 echo request seq={struct.unpack('!H', body[6:8])[0]}")
            if self.fault == "echo6-drop":
                return
            reply = self.send_later if self.fault == "echo6-late" else lambda mac, p: self.send(mac, p)
            reply(client_mac, icmp6(dst, src, 129, body[4:], hops=64))

    def send_later(self, mac, packet):
        self.peer.later(3.0, lambda: self.send(mac, packet))

    def advertise_neighbor(self, client_mac, src, target, link_address, solicited):
        flags = (0x80 if target in (ROUTER6, ROUTER6_GLOBAL) else 0) | (0x40 if solicited else 0) | 0x20
        body = struct.pack("!B3x", flags) + target + bytes([2, 1]) + link_address
        to, to_mac = (src, client_mac) if solicited else (ALL_NODES, ALL_NODES_MAC)
        self.send(to_mac, icmp6(target, to, 136, body), src_mac=link_address)

    def advertisement(self, options=None, flags=None):
        stateful = self.fault in ("dhcp6-stateful", "dhcp6-silent", "dhcp6-malformed")
        if flags is None:
            flags = 0xC0 if stateful else 0x40  # M and O, or O alone (DNS by stateless DHCPv6)
        lifetime = 0 if self.fault == "ra-lifetime-0" else 1800
        prefix_flags = 0x80 if stateful else 0xC0  # on-link, and autonomous unless DHCPv6 gives addresses
        if options is None:
            options = (bytes([1, 1]) + self.mac +
                       struct.pack("!BBBBIII", 3, 4, 64, prefix_flags, 86400, 14400, 0) + PREFIX6)
        body = struct.pack("!BBHII", 64, flags, lifetime, 0, 0) + options
        return icmp6(ROUTER6, ALL_NODES, 134, body)

    def malformed_advertisements(self):
        prefix = struct.pack("!BBBBIII", 3, 4, 64, 0xC0, 86400, 14400, 0) + PREFIX6
        yield self.advertisement(options=bytes([1, 0]) + bytes(6))                 # length 0
        yield self.advertisement(options=prefix[:1] + b"\x03" + prefix[2:24])      # prefix option cut to 24 bytes
        yield self.advertisement(options=prefix[:2] + b"\xc8" + prefix[3:])         # prefix length 200
        yield self.advertisement(options=bytes([3, 9]) + prefix[2:])                # claims 72 bytes, has 32

    # ---- DHCPv6 ----

    def dhcp6(self, client_mac, src, message):
        if len(message) < 4:
            return
        kind, xid, options = message[0], message[1:4], self.options(message[4:])
        names = {1: "solicit", 3: "request", 5: "renew", 6: "rebind", 11: "information-request"}
        self.peer.note(f"dhcp6 {names.get(kind, kind)} xid={xid.hex()}")
        if self.fault == "dhcp6-silent" or kind not in names or 1 not in options:
            return
        stateful = self.fault in ("dhcp6-stateful", "dhcp6-malformed")
        reply = option(1, options[1]) + option(2, self.duid)
        if kind in (1, 3, 5, 6) and 3 in options and stateful:
            iaid = options[3][:4]
            address = option(5, LEASED6 + struct.pack("!II", 3600, 7200))
            reply += option(3, iaid + struct.pack("!II", 1800, 2880) + address)
        elif kind in (1, 3, 5, 6) and 3 in options:
            reply += option(13, struct.pack("!H", 2) + b"no addresses")  # NoAddrsAvail
        reply += option(23, ROUTER6_GLOBAL)  # DNS server
        answer = 2 if kind == 1 else 7
        if self.fault == "dhcp6-malformed" and self.answers < 3:
            self.answers += 1
            bad = [reply + struct.pack("!HH", 23, 200) + ROUTER6_GLOBAL,   # overruns the message
                   option(1, options[1]) + option(2, self.duid) + option(3, b""),  # an IA_NA of length 0
                   option(1, options[1]) + option(2, self.duid) +
                   option(3, options.get(3, bytes(4))[:4] + bytes(8) + option(5, LEASED6[:8]))][self.answers - 1]
            self.send_dhcp6(client_mac, src, bytes([answer]) + xid + bad)
        self.send_dhcp6(client_mac, src, bytes([answer]) + xid + reply)
        self.peer.note(f"dhcp6 {'advertise' if answer == 2 else 'reply'}")

    def send_dhcp6(self, client_mac, client, message):
        udp = struct.pack("!HHHH", 547, 546, 8 + len(message), 0) + message
        self.send(client_mac, ipv6(ROUTER6, client, 17, udp, hops=64, checksum_at=6))

    @staticmethod
    def options(data):
        found, at = {}, 0
        while at + 4 <= len(data):
            code, length = struct.unpack("!HH", data[at:at + 4])
            found.setdefault(code, data[at + 4:at + 4 + length])
            at += 4 + length
        return found
