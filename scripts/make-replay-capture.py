#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""Writes the captures in examples/replay: a download of 60 segments through source NAT.

    scripts/make-replay-capture.py [DIRECTORY]

What each side of the router receives, with the addresses of examples/replay/router.toml. The
router keeps a source port that is free, so the server's answers can be written down beforehand.
The same bytes every time.
"""
import pathlib
import socket
import struct
import sys

LAN_HOST, LAN_ROUTER = "02:00:00:00:01:02", "02:00:00:00:01:01"
WAN_NEXT, WAN_ROUTER = "02:00:00:00:02:02", "02:00:00:00:02:01"
CLIENT, PUBLIC, SERVER = "192.168.1.2", "203.0.113.9", "198.51.100.7"
CLIENT_PORT, SERVER_PORT = 40000, 80
SEGMENTS, SEGMENT_BYTES = 60, 1000
FIN, SYN, PSH, ACK = 0x01, 0x02, 0x08, 0x10


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def mac(text):
    return bytes.fromhex(text.replace(":", ""))


def tcp_frame(macs, addresses, ports, seq, ack, flags, payload=b""):
    source, destination = (socket.inet_aton(a) for a in addresses)
    segment = struct.pack("!HHIIBBHHH", *ports, seq, ack, 0x50, flags, 0x4000, 0, 0) + payload
    pseudo = source + destination + struct.pack("!HH", socket.IPPROTO_TCP, len(segment))
    segment = segment[:16] + struct.pack("!H", checksum(pseudo + segment)) + segment[18:]
    header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(segment), 0, 0x4000, 64,
                         socket.IPPROTO_TCP, 0, source, destination)
    header = header[:10] + struct.pack("!H", checksum(header)) + header[12:]
    return mac(macs[1]) + mac(macs[0]) + b"\x08\x00" + header + segment


def write_capture(path, frames):
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for milliseconds, frame in frames:
            out.write(struct.pack("<IIII", milliseconds // 1000, milliseconds % 1000 * 1000,
                                  len(frame), len(frame)))
            out.write(frame)


def download():
    """Frames received from lan0 and from wan0, with the time of each in milliseconds."""
    lan, wan = [], []

    def client(at, seq, ack, flags, payload=b""):
        lan.append((at, tcp_frame((LAN_HOST, LAN_ROUTER), (CLIENT, SERVER),
                                  (CLIENT_PORT, SERVER_PORT), seq, ack, flags, payload)))

    def server(at, seq, ack, flags, payload=b""):
        wan.append((at, tcp_frame((WAN_NEXT, WAN_ROUTER), (SERVER, PUBLIC),
                                  (SERVER_PORT, CLIENT_PORT), seq, ack, flags, payload)))

    request = b"GET /file HTTP/1.0\r\n\r\n"
    client(0, 1000, 0, SYN)
    server(10, 5000, 1001, SYN | ACK)
    client(20, 1001, 5001, ACK)
    client(21, 1001, 5001, PSH | ACK, request)
    mine, theirs = 1001 + len(request), 5001
    time = 40
    for number in range(SEGMENTS):
        server(time, theirs, mine, ACK, bytes([ord("a") + number % 26]) * SEGMENT_BYTES)
        theirs += SEGMENT_BYTES
        client(time + 2, mine, theirs, ACK)
        time += 5
    server(time, theirs, mine, FIN | ACK)
    client(time + 2, mine, theirs + 1, FIN | ACK)
    server(time + 12, theirs + 1, mine + 1, ACK)
    return lan, wan


def main():
    root = pathlib.Path(__file__).resolve().parent.parent
    target = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else root / "examples" / "replay"
    target.mkdir(parents=True, exist_ok=True)
    lan, wan = download()
    write_capture(target / "lan0.pcap", lan)
    write_capture(target / "wan0.pcap", wan)


if __name__ == "__main__":
    main()
