"""Reading the packet captures that a NIC's dump= option writes."""
import struct

def read_pcap(path):
    """The frames of a capture file: (seconds, length on the wire, captured bytes) each."""
    with open(path, "rb") as f:
        data = f.read()
    if len(data) < 24:
        return []
    magic = struct.unpack_from("<I", data)[0]
    order = "<" if magic in (0xA1B2C3D4, 0xA1B23C4D) else ">"
    scale = 1e-9 if magic in (0xA1B23C4D, 0x4D3CB2A1) else 1e-6
    frames, at = [], 24
    while at + 16 <= len(data):
        sec, frac, caplen, wirelen = struct.unpack_from(order + "IIII", data, at)
        at += 16
        frames.append((sec + frac * scale, wirelen, data[at:at + caplen]))
        at += caplen
    return frames
