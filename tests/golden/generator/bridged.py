# SPDX-License-Identifier: GPL-2.0-only
"""Two hosts on a bridge with three ports, in all combinations of tags.

The first frame of each host goes by the bridge itself, which learns where the host is and floods
what it does not know; all that follows is fast. The third port sees the flooded frame only.
"""
from dataclasses import dataclass

from scapy.layers.inet import IP, UDP
from scapy.layers.inet6 import IPv6
from scapy.layers.l2 import Dot1Q, Ether
from scapy.layers.ppp import PPPoE
from scapy.packet import Raw

from conversation import PAYLOAD
from links import ppp_protocol
from scenario import Scenario

PORTS = ("lan0", "lan1", "lan2")
PRIORITY = 5
FRAMES = 8


@dataclass
class BridgedHost:
    port: str
    vlan: int  # 0: untagged
    mac: str
    address: str

    def device(self):
        return f"{self.port}.{self.vlan}" if self.vlan else self.port


def frame(source, target, via, payload, priority):
    """What lies on the wire of host `via`."""
    if via.vlan:
        payload = Dot1Q(vlan=via.vlan, prio=priority) / payload
    return Ether(src=source.mac, dst=target.mac) / payload


def router(first, second, reorder):
    pieces = list(PORTS)
    for host in (first, second):
        if host.vlan:
            pieces += [host.device()] + ([] if reorder else [f"{host.device()}-keeps-tags"])
    return pieces + [f"br0:{first.device()},{second.device()}"]


def in_session(packet):
    return PPPoE(sessionid=0x0042) / Raw(ppp_protocol(packet)) / packet


def exchange(name, first_vlan, second_vlan, wrap=lambda packet: packet, family=IP, priority=0,
             reorder=True):
    addresses = (("192.168.1.2", "192.168.1.3") if family is IP
                 else ("2001:db8:1::2", "2001:db8:1::3"))
    first = BridgedHost("lan0", first_vlan, "02:00:00:00:01:02", addresses[0])
    second = BridgedHost("lan1", second_vlan, "02:00:00:00:02:02", addresses[1])
    scenario = Scenario(name, router(first, second, reorder), PORTS)
    # A host behind a VLAN that keeps its tags is not told to the fast path.
    told = reorder or not (first_vlan or second_vlan)
    for number in range(FRAMES):
        source, target = (first, second) if number % 2 == 0 else (second, first)
        packet = wrap(family(src=source.address, dst=target.address)
                      / UDP(sport=4000, dport=9) / Raw(PAYLOAD))
        arrives_with = priority if source.vlan else 0
        leaves_with = arrives_with
        verdict = "fast-bridged" if number > 1 and told else "slow"
        scenario.passes(source.port, frame(source, target, source, packet, arrives_with), verdict,
                        target.port, frame(source, target, target, packet, leaves_with))
        if number == 0:
            scenario.sends("lan2", frame(source, target, BridgedHost("lan2", 0, "", ""), packet, 0))
    return scenario


def scenarios():
    yield exchange("bridge", 0, 0)
    yield exchange("bridge-ipv6", 0, 0, family=IPv6)
    yield exchange("bridge-tagged-untagged", 20, 0)
    yield exchange("bridge-tagged-tagged", 20, 30, priority=PRIORITY)
    yield exchange("bridge-pppoe", 0, 0, in_session)
    yield exchange("bridge-pppoe-tagged-untagged", 20, 0, in_session)
    # The priority of a session's frame is its packet's, not its tag's: 0 here.
    yield exchange("bridge-pppoe-tagged-tagged", 20, 30, in_session)
    yield exchange("bridge-pppoe-ipv6", 0, 30, in_session, family=IPv6)
    yield exchange("bridge-unreported", 20, 30, reorder=False)
