# SPDX-License-Identifier: GPL-2.0-only
"""UDP datagrams in fragments, IPv4 behind source NAT and IPv6.

A connection is made fast by whole datagrams first. The fragments are cut to the MTU of the ports,
so that the stack, which puts a datagram together and cuts it again, cuts it alike.
"""
from scapy.layers.inet import IP, UDP
from scapy.layers.inet6 import IPv6, IPv6ExtHdrFragment
from scapy.packet import Raw

from conversation import ADDS_NEEDED, HOPS, Conversation, Host
from networks import (CLIENT, CLIENT6, CLIENT_PORT, PUBLIC, SERVER, SERVER6, SERVER_PORT, inside,
                      lan_port, outside, wan_port)
from scenario import Scenario

# Of an IPv4 fragment; a multiple of 8.
PIECE = 256
IPV4_MTU = 20 + PIECE
# The least MTU of IPv6, and what fits it after both headers.
IPV6_MTU = 1280
IPV6_PIECE = 1232
MORE = 1
# Entries of the fast path's cache of fragments, and their life in seconds.
CACHE_ENTRIES = 64
CACHE_LIFE = 10


def text_of(length):
    return bytes(ord("a") + number % 26 for number in range(length))


class Datagram:
    """The pieces of one datagram, before and after the router."""

    def __init__(self, family, identification, pieces, hops=HOPS):
        self.family, self.identification, self.pieces = family, identification, pieces
        self.size = PIECE if family == 4 else IPV6_PIECE
        # The last piece is shorter than the others.
        self.payload = text_of(self.size * pieces - 8 - 100)
        self.hops = hops

    def fragments(self, source, target, sport, dport):
        """The whole datagram's checksum lies in the first piece."""
        datagram = UDP(sport=sport, dport=dport) / Raw(self.payload)
        if self.family == 4:
            whole = IP(src=source, dst=target, ttl=self.hops) / datagram
        else:
            whole = IPv6(src=source, dst=target, hlim=self.hops) / datagram
        data = bytes(whole)[20 if self.family == 4 else 40:]
        return [self.piece(source, target, data, at) for at in range(0, len(data), self.size)]

    def piece(self, source, target, data, at):
        more = at + self.size < len(data)
        part = Raw(data[at:at + self.size])
        if self.family == 4:
            return IP(src=source, dst=target, ttl=self.hops, id=self.identification, proto=17,
                      flags=MORE if more else 0, frag=at // 8) / part
        return (IPv6(src=source, dst=target, hlim=self.hops, nh=44)
                / IPv6ExtHdrFragment(nh=17, offset=at // 8, m=int(more), id=self.identification)
                / part)


class Flow:
    """One fast UDP connection from the client to the server, and its fragments."""

    def __init__(self, name, family, slow_order="same"):
        self.family = family
        mtu = IPV4_MTU if family == 4 else IPV6_MTU
        self.lan, self.wan = lan_port(mtu=mtu), wan_port(mtu=mtu)
        self.scenario = Scenario(name, inside(self.lan, family) + outside(self.wan, family)
                                 + (["nat@wan0"] if family == 4 else []), slow_order=slow_order)
        client, server = (CLIENT, SERVER) if family == 4 else (CLIENT6, SERVER6)
        self.public = (PUBLIC if family == 4 else CLIENT6, CLIENT_PORT)
        self.client, self.server = client, server
        Conversation(self.scenario, Host(self.lan, client, CLIENT_PORT),
                     Host(self.wan, server, SERVER_PORT),
                     public=self.public).talk_udp(ADDS_NEEDED)

    def frames(self, identification, pieces, hops=HOPS):
        """The frames received, and those sent with that many hops left."""
        before = Datagram(self.family, identification, pieces)
        after = Datagram(self.family, identification, pieces, hops)
        return ([self.lan.received(packet) for packet in
                 before.fragments(self.client, self.server, CLIENT_PORT, SERVER_PORT)],
                [self.wan.sent(packet) for packet in
                 after.fragments(self.public[0], self.server, self.public[1], SERVER_PORT)])

    def passes(self, frame, result, verdict="fast-routed"):
        self.scenario.passes("lan0", frame, verdict, "wan0", result)

    def in_order(self, identification, pieces):
        for frame, result in zip(*self.frames(identification, pieces)):
            self.passes(frame, result)


def in_order(family):
    flow = Flow(f"fragments-ipv{family}", family)
    for identification, pieces in enumerate((2, 3, 8), 0x1234):
        flow.in_order(identification, pieces)
    # An identification that has gone round.
    flow.in_order(0x1234, 2)
    return flow.scenario


def first_late(family):
    """The second of three comes first: held, and sent behind the first one."""
    flow = Flow(f"fragments-ipv{family}-first-late", family, "any")
    received, sent = flow.frames(0x2000, 3)
    scenario = flow.scenario
    scenario.receives("lan0", received[1], "slow")
    scenario.receives("lan0", received[0], "fast-routed")
    scenario.sends("wan0", sent[0])
    scenario.sends("wan0", sent[1])
    flow.passes(received[2], sent[2])
    return scenario


def in_reverse(family):
    """All wait for the first one; the last one is sent last whenever it came."""
    flow = Flow(f"fragments-ipv{family}-reverse", family, "any")
    received, sent = flow.frames(0x2100, 4)
    for frame in reversed(received[1:]):
        flow.scenario.receives("lan0", frame, "slow")
    flow.scenario.receives("lan0", received[0], "fast-routed")
    for frame in sent:
        flow.scenario.sends("wan0", frame)
    return flow.scenario


def first_twice(family):
    """What the network has doubled is doubled behind the fast path too; the stack puts the datagram
    together and passes over the repetition."""
    flow = Flow(f"fragments-ipv{family}-first-twice", family)
    received, sent = flow.frames(0x2180, 3)
    _, slowly = flow.frames(0x2180, 3, HOPS - 1)
    flow.scenario.only_slow_sends("wan0", slowly)
    for place in (0, 0, 1, 2):
        flow.passes(received[place], sent[place])
    return flow.scenario


def after_the_last(family):
    """What cannot work: with the last fragment the fast path forgets the datagram, so what arrives
    behind it stays in the stack, which misses the rest. The stack alone would send everything."""
    flow = Flow(f"fragments-ipv{family}-after-last", family)
    received, sent = flow.frames(0x2200, 3)
    _, slowly = flow.frames(0x2200, 3, HOPS - 1)
    flow.scenario.only_slow_sends("wan0", slowly)
    flow.passes(received[0], sent[0])
    flow.passes(received[2], sent[2])
    flow.scenario.receives("lan0", received[1], "slow")
    return flow.scenario


def expired(family):
    """What cannot work either: the fast path has forgotten the datagram between two fragments."""
    flow = Flow(f"fragments-ipv{family}-expired", family)
    received, sent = flow.frames(0x2300, 2)
    _, slowly = flow.frames(0x2300, 2, HOPS - 1)
    flow.scenario.only_slow_sends("wan0", slowly)
    flow.passes(received[0], sent[0])
    flow.scenario.waits(CACHE_LIFE)
    flow.scenario.receives("lan0", received[1], "slow")
    return flow.scenario


def cache_full(family):
    """As many datagrams as the cache has entries are under way; one more goes by the stack."""
    flow = Flow(f"fragments-ipv{family}-cache-full", family, "any")
    datagrams = [flow.frames(0x4000 + number, 2) for number in range(CACHE_ENTRIES)]
    for received, sent in datagrams:
        flow.passes(received[0], sent[0])
    received, _ = flow.frames(0x5000, 2)
    _, slowly = flow.frames(0x5000, 2, HOPS - 1)
    for frame in received:
        flow.scenario.receives("lan0", frame, "slow")
    for frame in slowly:
        flow.scenario.sends("wan0", frame)
    for received, sent in datagrams:
        flow.passes(received[1], sent[1])
    flow.in_order(0x5001, 2)
    return flow.scenario


def first_missing(family):
    """Nothing is sent of a datagram whose first fragment never comes."""
    flow = Flow(f"fragments-ipv{family}-first-missing", family)
    received, _ = flow.frames(0x3000, 3)
    for frame in received[1:]:
        flow.scenario.receives("lan0", frame, "slow")
    flow.scenario.waits(60)
    flow.in_order(0x3000, 2)
    return flow.scenario


def scenarios():
    for family in (4, 6):
        yield in_order(family)
        yield first_late(family)
        yield in_reverse(family)
        yield first_twice(family)
        yield after_the_last(family)
        yield expired(family)
        yield first_missing(family)
    # Only one family: 64 datagrams of the other's least MTU would be 160 KB of captures.
    yield cache_full(4)
