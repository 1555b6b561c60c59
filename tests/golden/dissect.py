# SPDX-License-Identifier: GPL-2.0-only
"""Takes a frame apart, to show it and to find the fields that a comparison must treat specially.

Whatever is not understood is shown as bytes, and compared as such: a frame is never judged by its
decoded form, only by its bytes with the special fields blanked.
"""
import struct
from dataclasses import dataclass, field

from captures import RAW_IP

# What is special about a field.
HOPS = "hops"  # TTL or hop limit
HEADER_SUM = "header checksum"  # follows from the rest of an IPv4 header
TUNNEL_ID = "identification of a tunnel's packet"
TUNNEL_SUM = "header checksum of a tunnel's packet"
TUNNEL_SEQUENCE = "sequence number of a tunnel"

VLAN, IPV4, IPV6, PPPOE = 0x8100, 0x0800, 0x86DD, 0x8864
PPP_IPV4, PPP_IPV6 = 0x21, 0x57
FRAGMENT, TCP, UDP, GRE = 44, 6, 17, 47
L2TP_PORT = 1701


def ones_sum(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return total


def mac(data):
    return ":".join(f"{byte:02x}" for byte in data)


def ipv6(data):
    return ":".join(f"{word:x}" for word in struct.unpack("!8H", data))


@dataclass
class Dissection:
    frame: bytes
    lines: list = field(default_factory=list)
    special: list = field(default_factory=list)  # (role, offset, width)
    faults: list = field(default_factory=list)

    def word(self, at, width=2):
        return int.from_bytes(self.frame[at:at + width], "big")

    def show(self, text):
        self.lines.append(text)

    def rest(self, at):
        data = self.frame[at:]
        self.show(f"payload    {len(data)} bytes {data[:48].hex()}{'...' if len(data) > 48 else ''}")

    def has(self, at, length):
        if at + length <= len(self.frame):
            return True
        self.rest(at)
        return False

    def ethernet(self):
        if not self.has(0, 14):
            return
        kind = self.word(12)
        self.show(f"ethernet   {mac(self.frame[6:12])} > {mac(self.frame[:6])} type {kind:#06x}")
        at = 14
        if kind == VLAN and self.has(at, 4):
            control, kind = self.word(at), self.word(at + 2)
            self.show(f"vlan       id {control & 0xFFF} priority {control >> 13} type {kind:#06x}")
            at += 4
        if kind == PPPOE:
            self.pppoe(at)
        elif kind in (IPV4, IPV6):
            self.ip(at)
        else:
            self.rest(at)

    def pppoe(self, at):
        if not self.has(at, 8):
            return
        session, length, protocol = (self.word(at + offset) for offset in (2, 4, 6))
        self.show(f"pppoe      session {session:#06x} length {length} protocol {protocol:#06x}")
        if length != len(self.frame) - at - 6:
            self.faults.append(f"PPPoE length {length}, {len(self.frame) - at - 6} bytes are there")
        self.ip(at + 8)

    def ip(self, at):
        version = self.word(at, 1) >> 4
        if version == 4 and self.has(at, 20):
            self.ipv4(at)
        elif version == 6 and self.has(at, 40):
            self.ipv6(at)
        else:
            self.rest(at)

    def ipv4(self, at):
        header = self.frame[at:at + (self.word(at, 1) & 0xF) * 4]
        protocol, offset = header[9], self.word(at + 6)
        source, target = (".".join(map(str, header[place:place + 4])) for place in (12, 16))
        self.show(f"ipv4       {source} > {target} protocol {protocol} ttl {header[8]} "
                  f"length {self.word(at + 2)} id {self.word(at + 4):#06x} tos {header[1]:#04x} "
                  f"fragment {offset:#06x} checksum {self.word(at + 10):#06x}")
        if ones_sum(header) != 0xFFFF:
            self.faults.append(f"checksum of the IPv4 header from {source} to {target} is wrong")
        if self.word(at + 2) != len(self.frame) - at:
            self.faults.append(f"IPv4 length {self.word(at + 2)}, {len(self.frame) - at} bytes")
        self.special += [(HOPS, at + 8, 1), (HEADER_SUM, at + 10, 2)]
        if offset & 0x1FFF:
            self.rest(at + len(header))
        else:
            self.transport(at, at + len(header), protocol)

    def ipv6(self, at):
        following = self.frame[at + 6]
        self.show(f"ipv6       {ipv6(self.frame[at + 8:at + 24])} > "
                  f"{ipv6(self.frame[at + 24:at + 40])} next {following} "
                  f"hops {self.frame[at + 7]} length {self.word(at + 4)}")
        self.special.append((HOPS, at + 7, 1))
        below, at = at, at + 40
        if following == FRAGMENT and self.has(at, 8):
            offset = self.word(at + 2)
            self.show(f"fragment   next {self.frame[at]} offset {offset & 0xFFF8} "
                      f"more {offset & 1} id {self.word(at + 4, 4):#010x}")
            if offset & 0xFFF8:
                self.rest(at + 8)
                return
            following, at = self.frame[at], at + 8
        self.transport(below, at, following)

    def transport(self, network, at, protocol):
        if protocol == GRE:
            self.gre(network, at)
        elif protocol in (UDP, TCP) and self.has(at, 8):
            source, target = self.word(at), self.word(at + 2)
            if protocol == TCP and self.has(at, 20):
                self.show(f"tcp        {source} > {target} sequence {self.word(at + 4, 4)} "
                          f"acknowledges {self.word(at + 8, 4)} flags {self.frame[at + 13]:#04x} "
                          f"checksum {self.word(at + 16):#06x}")
                self.rest(at + 20)
            elif protocol == UDP:
                self.show(f"udp        {source} > {target} length {self.word(at + 4)} "
                          f"checksum {self.word(at + 6):#06x}")
                if L2TP_PORT in (source, target):
                    self.l2tp(network, at + 8)
                else:
                    self.rest(at + 8)
        else:
            self.rest(at)

    def tunnel(self, network):
        self.special += [(TUNNEL_ID, network + 4, 2), (TUNNEL_SUM, network + 10, 2)]

    def gre(self, network, at):
        if not self.has(at, 12):
            return
        self.tunnel(network)
        acknowledges = self.frame[at + 1] & 0x80
        length = 16 if acknowledges else 12
        self.show(f"gre        {self.frame[at:at + 4].hex()} length {self.word(at + 4)} "
                  f"call {self.word(at + 6)} sequence {self.word(at + 8, 4)}"
                  + (f" acknowledges {self.word(at + 12, 4)}" if acknowledges else ""))
        if self.word(at + 4) != len(self.frame) - at - length:
            self.faults.append(f"GRE length {self.word(at + 4)}")
        self.special.append((TUNNEL_SEQUENCE, at + 8, 4))
        self.ppp(at + length)

    def l2tp(self, network, at):
        if not self.has(at, 6):
            return
        self.tunnel(network)
        flags = self.word(at)
        ids = at + 4 if flags & 0x4000 else at + 2
        at = ids + 4
        text = f"l2tp       flags {flags:#06x} tunnel {self.word(ids)} session {self.word(ids + 2)}"
        if flags & 0x0800:
            self.special.append((TUNNEL_SEQUENCE, at, 2))
            text += f" ns {self.word(at)} nr {self.word(at + 2)}"
            at += 4
        self.show(text)
        self.ppp(at)

    def ppp(self, at):
        start = at
        if self.frame[at:at + 2] == b"\xff\x03":
            at += 2
        at += 1 if self.word(at, 1) & 1 else 2
        framing = self.frame[start:at]
        self.show(f"ppp        {framing.hex()}")
        if framing[-1:] in (bytes([PPP_IPV4]), bytes([PPP_IPV6])):
            self.ip(at)
        else:
            self.rest(at)


def dissect(frame, link):
    result = Dissection(frame)
    if link == RAW_IP:
        result.ip(0)
    else:
        result.ethernet()
    return result
