# SPDX-License-Identifier: GPL-2.0-only
"""A client and a server that talk through the router, one packet each in turn.

The first packets of a connection go through the router's stack, which counts their hops; when
the connection has met the fast path's add operation often enough the rest goes the short way, TTL
unchanged.
"""
from dataclasses import dataclass

from scapy.layers.inet import IP, TCP, UDP
from scapy.layers.inet6 import IPv6
from scapy.packet import Raw

from scenario import Scenario

# The call of the add operation with which a connection begins to be fast.
ADDS_NEEDED = 20
FAST_PACKETS = 12
HOPS = 64
PAYLOAD = b"a golden packet carries words."


@dataclass
class Host:
    """Who talks: address, port, and the link by which the router reaches it."""
    link: object
    address: str
    port: int


def ip_header(source, target, hops):
    if ":" in source:
        return IPv6(src=source, dst=target, hlim=hops)
    return IP(src=source, dst=target, ttl=hops)


class Conversation:
    """`public` is the (address, port) as which the client is seen by the server, `exposed` the
    one as which the server is seen by the client; without them nothing is translated."""

    def __init__(self, scenario: Scenario, client: Host, server: Host, public=None, exposed=None):
        self.scenario, self.client, self.server = scenario, client, server
        self.public = public or (client.address, client.port)
        self.exposed = exposed or (server.address, server.port)
        self.adds = 0

    def packet_of(self, from_client, inside, hops, transport):
        """The packet before (inside) or after the router; `transport` makes it from two ports."""
        client = (self.client.address, self.client.port)
        server = (self.server.address, self.server.port)
        if from_client:
            source = client if inside else self.public
            target = self.exposed if inside else server
        else:
            source = server if inside else self.exposed
            target = self.public if inside else client
        return ip_header(source[0], target[0], hops) / transport(source[1], target[1])

    def says(self, from_client, transport, never_fast=False):
        """One packet; returns whether it was expected to be fast."""
        fast = self.adds >= ADDS_NEEDED and not never_fast
        if not fast:
            self.adds += 1
        source, target = self.client.link, self.server.link
        if not from_client:
            source, target = target, source
        frame = source.received(self.packet_of(from_client, True, HOPS, transport))
        result = target.sent(self.packet_of(from_client, False, HOPS if fast else HOPS - 1,
                                            transport))
        self.scenario.passes(source.port, frame, "fast-routed" if fast else "slow",
                             target.port, result)
        return fast

    def talk_udp(self, packets=ADDS_NEEDED + FAST_PACKETS, payload=PAYLOAD, **fields):
        for number in range(packets):
            self.says(number % 2 == 0,
                      lambda sport, dport: UDP(sport=sport, dport=dport, **fields) / Raw(payload))

    def talk_tcp(self, packets=ADDS_NEEDED + FAST_PACKETS):
        """From the handshake to the end; the closing segments are for the stack."""
        ack = {True: 0, False: 0}
        sequence = {True: 1000, False: 5000}

        def segment(from_client, flags, payload=b"", never_fast=False):
            numbers = {"seq": sequence[from_client], "ack": ack[from_client]}
            self.says(from_client, lambda sport, dport: TCP(
                sport=sport, dport=dport, flags=flags, **numbers) / Raw(payload), never_fast)
            ends = "S" in flags or "F" in flags
            sequence[from_client] += len(payload) + (1 if ends else 0)
            ack[not from_client] = sequence[from_client]

        segment(True, "S")
        segment(False, "SA")
        segment(True, "A")
        for number in range(packets):
            segment(number % 2 == 0, "PA", PAYLOAD)
        segment(True, "FA", never_fast=True)
        segment(False, "FA", never_fast=True)
        segment(True, "A", never_fast=True)
