"""The scripted network: a peer that one NIC's network consists of, joined to QEMU through a Unix
stream socket (QEMU's `-netdev stream`, frames with a 4-byte big-endian length in front). It owns
the DHCP server 10.0.2.2 and the router 10.0.2.1 on 10.0.2.0/24, leases 10.0.2.15, answers ARP and
ICMP echo for the addresses it owns, is IPv6's router too (peer6.py), and follows one fault plan. Nothing here opens any other
socket: the peer's whole world is the VM's NIC.

    python3 -m wcvm.peer SOCKET FAULT LOG [QMP NETDEV]

For the link-flap plan the peer also holds a QMP socket of the VM's own and the NIC's netdev name,
to drop and raise the NIC's link.
"""
import json
import os
import random
import select
import socket
import struct
import sys
import time

from .peer6 import FAULTS6, Ipv6Side

NET = bytes([10, 0, 2, 0])
SERVER, ROUTER, CLIENT, STRANGER = bytes([10, 0, 2, 2]), bytes([10, 0, 2, 1]), bytes([10, 0, 2, 15]), bytes([10, 0, 2, 99])
MASK = bytes([255, 255, 255, 0])
SERVER_MAC, ROUTER_MAC = bytes.fromhex("52550a000202"), bytes.fromhex("52550a000201")
BROADCAST_MAC = b"\xff" * 6
LEASE = 86400

# Fault plans: what the network does wrong. The verdicts they must give are in faults.py.
FAULTS = {
    "none": "a network that works: DHCP with subnet, router, server identifier and lease; ARP; echo",
    "no-dhcp": "no DHCP server: discovers go unanswered",
    "offer-only": "the server offers and never acknowledges",
    "nak": "the server offers and answers every request with a NAK",
    "no-router": "the lease has no router option",
    "router-silent": "the lease names a router that answers neither ARP nor echo",
    "icmp-drop": "DHCP works, echo requests go unanswered",
    "wrong-id": "echo replies carry another identifier",
    "wrong-source": "echo replies come from another source address",
    "unreachable": "a destination-unreachable message instead of each echo reply",
    "late-1500": "each echo reply 1.5 s late",
    "late-3000": "each echo reply 3 s late",
    "duplicate": "every echo reply sent twice",
    "lose-every-other": "every other echo reply lost",
    "malformed": "malformed frames before each echo reply: truncated IPv4 header, bad header checksum, ICMP "
                 "shorter than 8 bytes, a 9,000-byte frame, a fragment whose rest never comes",
    "flood": "unrelated broadcast frames all the time, about 2,000 a second",
    "link-flap": "the link drops at the first echo request of every other ping (not answered) and comes back "
                 "0.5 s later",
    **FAULTS6,
}

# The flood's spacing: 2,000 frames a second.
FLOOD_GAP = 0.0005
# How long link-flap keeps the link down. Well before the unanswered ping gives up (2 s), so that its
# retry never starts in the half second after the link returns: EDK2's IPv4 driver notices a link that
# came back on a 500 ms timer and then drops the NIC's address for a new DHCP round, and a retry that
# configured its child on the old address in between lost its request with it (seen once with 2 s).
LINK_DOWN_SECONDS = 0.5


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def ipv4(src, dst, proto, payload, ident=0, flags_fragment=0, bad_checksum=False):
    header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), ident, flags_fragment, 64, proto, 0, src, dst)
    value = checksum(header) ^ (0x5555 if bad_checksum else 0)
    return header[:10] + struct.pack("!H", value) + header[12:] + payload


def ethernet(dst, src, ethertype, payload):
    frame = dst + src + struct.pack("!H", ethertype) + payload
    return frame + b"\0" * max(0, 60 - len(frame))


def icmp(kind, code, rest, body):
    message = struct.pack("!BBH", kind, code, 0) + rest + body
    return message[:2] + struct.pack("!H", checksum(message)) + message[4:]


class Peer:
    def __init__(self, fault, log, qmp="", netdev=""):
        self.fault = fault
        self.log = log
        self.qmp_path, self.netdev, self.qmp = qmp, netdev, None
        self.first_requests = 0
        self.conn = None
        self.client_mac = None
        self.scheduled = []  # (when, frame or action)
        self.echoes = 0
        self.next_flood = 0.0
        self.v6 = Ipv6Side(self)

    def note(self, text):
        self.log.write(f"{time.monotonic():.3f} {text}\n")
        self.log.flush()

    def send(self, frame):
        self.conn.sendall(struct.pack("!I", len(frame)) + frame)

    def later(self, delay, frame):
        self.scheduled.append((time.monotonic() + delay, frame))

    def set_link(self, up):
        if self.qmp is None:
            sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            sock.connect(self.qmp_path)
            self.qmp = sock.makefile("rw")
            self.qmp.readline()  # greeting
            self.qmp_call("qmp_capabilities")
        self.qmp_call("set_link", {"name": self.netdev, "up": up})
        self.note(f"link {'up' if up else 'down'}")

    def qmp_call(self, command, arguments=None):
        self.qmp.write(json.dumps({"execute": command, **({"arguments": arguments} if arguments else {})}) + "\n")
        self.qmp.flush()
        while True:
            reply = json.loads(self.qmp.readline())
            if "return" in reply or "error" in reply:
                return reply

    def owns(self, address):
        return address == SERVER or (address == ROUTER and self.fault != "router-silent")

    def mac_of(self, address):
        return ROUTER_MAC if address == ROUTER else SERVER_MAC

    # ---- frames in ----

    def frame(self, frame):
        if len(frame) < 14:
            return
        ethertype = struct.unpack("!H", frame[12:14])[0]
        if ethertype == 0x0806:
            self.arp(frame)
        elif ethertype == 0x86DD:
            self.v6.frame(frame)
        elif ethertype == 0x0800 and len(frame) >= 34:
            header_length = (frame[14] & 0x0F) * 4
            packet = frame[14:14 + struct.unpack("!H", frame[16:18])[0]]
            proto, dst = packet[9], packet[16:20]
            body = packet[header_length:]
            if proto == 17 and len(body) >= 8 and struct.unpack("!H", body[2:4])[0] == 67:
                self.dhcp(frame[6:12], body[8:])
            elif proto == 1 and len(body) >= 8 and body[0] == 8 and self.owns(dst):
                self.echo(frame[6:12], packet, header_length, body)

    def arp(self, frame):
        arp = frame[14:42]
        if len(arp) < 28 or struct.unpack("!H", arp[6:8])[0] != 1 or not self.owns(arp[24:28]):
            return
        mac = self.mac_of(arp[24:28])
        reply = struct.pack("!HHBBH", 1, 0x0800, 6, 4, 2) + mac + arp[24:28] + arp[8:14] + arp[14:18]
        self.send(ethernet(arp[8:14], mac, 0x0806, reply))

    def dhcp(self, source_mac, bootp):
        if len(bootp) < 240 or bootp[236:240] != b"\x63\x82\x53\x63":
            return
        kind, i, options = None, 240, bootp
        while i < len(options) and options[i] != 255:
            if options[i] == 0:
                i += 1
                continue
            if i + 1 >= len(options):
                break
            if options[i] == 53 and options[i + 1] >= 1:
                kind = options[i + 2]
            i += 2 + options[i + 1]
        self.client_mac = bootp[28:34]
        self.note(f"dhcp {'discover' if kind == 1 else 'request' if kind == 3 else kind} xid={bootp[4:8].hex()}")
        if self.fault == "no-dhcp" or kind not in (1, 3):
            return
        if kind == 3 and self.fault == "offer-only":
            return
        answer = 2 if kind == 1 else 6 if self.fault == "nak" else 5
        opts = bytes([53, 1, answer, 54, 4]) + SERVER
        if answer != 6:
            opts += bytes([51, 4]) + struct.pack("!I", LEASE) + bytes([1, 4]) + MASK
            if self.fault != "no-router":
                opts += bytes([3, 4]) + ROUTER
        opts += b"\xff"
        reply = bytearray(240)
        reply[0:4] = bytes([2, 1, 6, 0])
        reply[4:8] = bootp[4:8]
        reply[10:12] = bootp[10:12]
        reply[16:20] = CLIENT if answer != 6 else bytes(4)
        reply[20:24] = SERVER
        reply[28:44] = bootp[28:44]
        reply[236:240] = b"\x63\x82\x53\x63"
        udp_payload = bytes(reply) + opts
        udp = struct.pack("!HHHH", 67, 68, 8 + len(udp_payload), 0) + udp_payload
        self.send(ethernet(BROADCAST_MAC, SERVER_MAC, 0x0800, ipv4(SERVER, b"\xff" * 4, 17, udp)))
        self.note(f"dhcp {'offer' if answer == 2 else 'ack' if answer == 5 else 'nak'}")

    def echo(self, source_mac, packet, header_length, request):
        self.echoes += 1
        target = packet[16:20]
        mac = self.mac_of(target)
        self.note(f"echo request to {'.'.join(map(str, target))} seq={struct.unpack('<H', request[6:8])[0]}")
        if self.fault == "icmp-drop" or (self.fault == "lose-every-other" and self.echoes % 2 == 0):
            return
        if self.fault == "link-flap" and request[6:8] == b"\0\0":
            self.first_requests += 1
        if self.fault == "link-flap" and request[6:8] == b"\0\0" and self.first_requests % 2 == 1:
            self.set_link(False)
            self.later(LINK_DOWN_SECONDS, lambda: self.set_link(True))
            return
        ident, rest = request[4:6], request[6:8]
        source = target
        if self.fault == "wrong-id":
            ident = bytes([ident[0] ^ 0x5A, ident[1] ^ 0xA5])
        if self.fault == "wrong-source":
            source = STRANGER
        if self.fault == "unreachable":
            message = icmp(3, 1, b"\0\0\0\0", packet[:header_length + 8])
        else:
            message = icmp(0, 0, ident + rest, request[8:])
        reply = ethernet(source_mac, mac, 0x0800, ipv4(source, packet[12:16], 1, message))
        if self.fault == "malformed":
            for bad in self.malformed(source_mac, mac, target, packet[12:16], ident + rest, request[8:]):
                self.send(bad)
        delay = {"late-1500": 1.5, "late-3000": 3.0}.get(self.fault, 0)
        if delay:
            self.later(delay, reply)
            return
        self.send(reply)
        if self.fault == "duplicate":
            self.send(reply)

    def malformed(self, dst_mac, mac, source, dest, ident_seq, body):
        good = icmp(0, 0, ident_seq, body)
        whole = ipv4(source, dest, 1, good)
        yield ethernet(dst_mac, mac, 0x0800, whole[:10])  # a header cut short
        yield ethernet(dst_mac, mac, 0x0800, ipv4(source, dest, 1, good, bad_checksum=True))
        yield ethernet(dst_mac, mac, 0x0800, ipv4(source, dest, 1, good[:4]))  # ICMP of 4 bytes
        big = icmp(0, 0, ident_seq, body + bytes(8980 - len(body)))
        yield ethernet(dst_mac, mac, 0x0800, ipv4(source, dest, 1, big))  # a 9,000-byte frame
        yield ethernet(dst_mac, mac, 0x0800, ipv4(source, dest, 1, good[:16], ident=0x4242,
                                                   flags_fragment=0x2000))  # more fragments, never sent

    def flood(self, now):
        """One unrelated broadcast frame every FLOOD_GAP, evenly spaced: a burst would overrun a small
        receive ring however quickly the firmware polls (e1000 under iPXE keeps 8 buffers and QEMU
        drops what does not fit), and the frames lost would be the firmware's, not the network's. A
        peer that fell behind starts again from now rather than sending the backlog at once."""
        if self.fault != "flood" or now < self.next_flood:
            return
        if now - self.next_flood > 10 * FLOOD_GAP:
            self.next_flood = now
        while self.next_flood <= now:
            size = random.randint(46, 1500)
            self.send(BROADCAST_MAC + bytes.fromhex("52550a0000ee") + b"\x88\xb5" + os.urandom(size))
            self.next_flood += FLOOD_GAP

    # ---- the loop ----

    def serve(self, path):
        server = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        server.bind(path)
        server.listen(1)
        self.note(f"listening, fault {self.fault}")
        self.conn, _ = server.accept()
        self.note("QEMU connected")
        buffer = b""
        while True:
            now = time.monotonic()
            due = [f for when, f in self.scheduled if when <= now]
            self.scheduled = [(when, f) for when, f in self.scheduled if when > now]
            for item in due:
                item() if callable(item) else self.send(item)
            self.flood(now)
            wait = max(0.0, self.next_flood - time.monotonic()) if self.fault == "flood" else 0.05
            ready, _, _ = select.select([self.conn], [], [], wait)
            if not ready:
                continue
            chunk = self.conn.recv(65536)
            if not chunk:
                self.note("QEMU closed the connection")
                return
            buffer += chunk
            while len(buffer) >= 4:
                length = struct.unpack("!I", buffer[:4])[0]
                if len(buffer) < 4 + length:
                    break
                self.frame(buffer[4:4 + length])
                buffer = buffer[4 + length:]


def main(argv):
    if len(argv) not in (3, 5) or argv[1] not in FAULTS or (argv[1] == "link-flap") != (len(argv) == 5):
        print(f"usage: python3 -m wcvm.peer SOCKET FAULT LOG [QMP NETDEV] (FAULT one of {', '.join(FAULTS)}; "
              f"QMP and NETDEV with link-flap only)", file=sys.stderr)
        return 2
    with open(argv[2], "a") as log:
        try:
            Peer(argv[1], log, *argv[3:]).serve(argv[0])
        except (BrokenPipeError, ConnectionResetError):
            log.write("QEMU went away\n")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
