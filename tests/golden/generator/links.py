# SPDX-License-Identifier: GPL-2.0-only
"""The links that a router's packets come and go by, as scapy sees them.

A link wraps a packet into the frame in which it reaches the router (received) or leaves it (sent),
and says of which pieces a router is made that has it. Links stand on one another: a VLAN or a PPPoE
session on a port, a tunnel on any of them. Each keeps a tunnel's numbers as RFC 2637 and RFC 2661
want them, so a frame is made in the order in which frames are on the wire.
"""
from socket import IPPROTO_GRE, IPPROTO_UDP

from scapy.layers.inet import IP, UDP
from scapy.layers.inet6 import IPv6
from scapy.layers.l2 import GRE_PPTP, Dot1Q, Ether
from scapy.layers.l2tp import L2TP
from scapy.layers.ppp import PPPoE
from scapy.packet import Raw

DEFAULT_TTL = 64
L2TP_PORT = 1701
DF = "DF"


def ppp_protocol(packet):
    return b"\x00\x57" if IPv6 in packet and IP not in packet else b"\x00\x21"


class Port:
    """Ethernet: the router's address on it and the one host at the other end."""

    def __init__(self, name, mac, peer_mac, mtu=None):
        self.device, self.port = name, name
        self.mac, self.peer_mac = mac, peer_mac
        self.pieces = [name] + ([f"{name}-mtu{mtu}"] if mtu else [])

    def received(self, payload):
        return Ether(dst=self.mac, src=self.peer_mac) / payload

    def sent(self, payload):
        return Ether(dst=self.peer_mac, src=self.mac) / payload


class Vlan:
    """A VLAN on a port. Frames arrive with the priority, and leave with the other."""

    def __init__(self, below, number, priority=0, sent_priority=0):
        self.below, self.number = below, number
        self.device, self.port = f"{below.device}.{number}", below.port
        self.pieces = below.pieces + [self.device]
        self.priority, self.sent_priority = priority, sent_priority

    def received(self, payload):
        return self.below.received(Dot1Q(vlan=self.number, prio=self.priority) / payload)

    def sent(self, payload):
        return self.below.sent(Dot1Q(vlan=self.number, prio=self.sent_priority) / payload)


class Pppoe:
    """A PPPoE session (RFC 2516) on a port or a VLAN."""

    def __init__(self, below, name, session):
        self.below, self.device, self.session = below, name, session
        self.port = below.port
        self.pieces = below.pieces + [name, f"{name}@{below.device}"]

    def wrap(self, payload):
        return PPPoE(sessionid=self.session) / Raw(ppp_protocol(payload)) / payload

    def received(self, payload):
        return self.below.received(self.wrap(payload))

    def sent(self, payload):
        return self.below.sent(self.wrap(payload))


PPP_FRAMINGS = (b"\xff\x03\x00\x21", b"\xff\x03\x21", b"\x00\x21", b"\x21")


class Tunnel:
    """What both kinds share. `way` is the link that the tunnel runs over; frames arrive in all PPP
    framings in turn. `options` are those that are set."""

    def __init__(self, kind, way, name, local, remote, **options):
        self.below, self.device, self.port = way, name, way.port
        self.local, self.remote = local, remote
        self.pieces = (way.pieces + [f"public@{way.device}", f"{kind}@{way.device}", kind]
                       + [f"{kind}-{option}" for option, is_set in options.items() if is_set])
        self.arrived = 0

    def next_arrival(self):
        self.arrived += 1
        return self.arrived

    def outer(self, incoming, protocol):
        """Only don't-fragment, no identification: the packets are never cut."""
        source, target = (self.remote, self.local) if incoming else (self.local, self.remote)
        return IP(src=source, dst=target, id=0, flags=DF, ttl=DEFAULT_TTL, proto=protocol)


class L2tp(Tunnel):
    """L2TP data messages over UDP (RFC 2661, version 2)."""

    TUNNEL, PEER_TUNNEL, SESSION, PEER_SESSION = 10, 20, 30, 40
    ARRIVING_HEADERS = (0, "length", "sequence", "length+sequence")

    def __init__(self, way, name, local, remote, send_seq=False):
        super().__init__("l2tp", way, name, local, remote, send_seq=send_seq)
        self.send_seq, self.ns = send_seq, 0

    def received(self, payload):
        number = self.next_arrival()
        header = self.ARRIVING_HEADERS[number % 4]
        message = L2TP(hdr=header, version=2, tunnel_id=self.TUNNEL, session_id=self.SESSION)
        if "sequence" in str(header):
            message.ns = number
        framing = PPP_FRAMINGS[number // 4 % 4]
        return self.below.received(self.outer(True, IPPROTO_UDP)
                                   / UDP(sport=L2TP_PORT, dport=L2TP_PORT)
                                   / message / Raw(framing) / payload)

    def sent(self, payload):
        message = L2TP(version=2, tunnel_id=self.PEER_TUNNEL, session_id=self.PEER_SESSION)
        if self.send_seq:
            message.hdr, message.ns, message.nr = "sequence", self.ns, 0
            self.ns += 1
        return self.below.sent(self.outer(False, IPPROTO_UDP)
                               / UDP(sport=L2TP_PORT, dport=L2TP_PORT, chksum=0)
                               / message / Raw(PPP_FRAMINGS[0]) / payload)


class Pptp(Tunnel):
    """The data packets of a PPTP call: enhanced GRE (RFC 2637)."""

    CALL, PEER_CALL = 5, 9

    def __init__(self, way, name, local, remote, compress=False, omit=False):
        super().__init__("pptp", way, name, local, remote, compress=compress, omit=omit)
        self.compress, self.omit = compress, omit
        self.sequence = 0
        self.to_acknowledge = None

    def received(self, payload):
        """Every other packet acknowledges."""
        number = self.next_arrival()
        self.to_acknowledge = number
        gre = GRE_PPTP(seqnum_present=1, seqence_number=number, call_id=self.CALL)
        if number % 2 == 0:
            gre.acknum_present, gre.ack_number = 1, self.sequence
        framing = PPP_FRAMINGS[number % 4]
        return self.below.received(self.outer(True, IPPROTO_GRE) / gre / Raw(framing) / payload)

    def sent(self, payload):
        self.sequence += 1
        gre = GRE_PPTP(seqnum_present=1, seqence_number=self.sequence, call_id=self.PEER_CALL)
        if self.to_acknowledge is not None:
            gre.acknum_present, gre.ack_number = 1, self.to_acknowledge
            self.to_acknowledge = None
        framing = ((b"" if self.omit else b"\xff\x03")
                   + (b"\x21" if self.compress else b"\x00\x21"))
        return self.below.sent(self.outer(False, IPPROTO_GRE) / gre / Raw(framing) / payload)


class RawIp:
    """A point-to-point device without a link-layer header."""

    def __init__(self, name):
        self.device, self.port, self.pieces = name, name, [name]

    def received(self, payload):
        return payload

    def sent(self, payload):
        return payload
