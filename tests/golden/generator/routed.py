# SPDX-License-Identifier: GPL-2.0-only
"""Routed IPv4 with and without translation, and VLANs on both sides."""
from conversation import Conversation, Host
from links import RawIp, Vlan
from networks import (CLIENT, CLIENT_PORT, LAN_VLAN, PUBLIC, SERVER, SERVER_PORT, WAN_VLAN, inside,
                      lan_port, outside, wan_port)
from scenario import Scenario

PUBLIC_PORT = 8080
TAG_PRIORITY = 5


def client_and_server(lan, wan):
    return Host(lan, CLIENT, CLIENT_PORT), Host(wan, SERVER, SERVER_PORT)


def translated(name, lan, wan, talk):
    """A client behind the address of the outer side."""
    scenario = Scenario(name, inside(lan) + outside(wan) + [f"nat@{wan.device}"])
    talk(Conversation(scenario, *client_and_server(lan, wan), public=(PUBLIC, CLIENT_PORT)))
    return scenario


def plain(name, lan, wan):
    scenario = Scenario(name, inside(lan) + outside(wan), ports=(lan.port, wan.port))
    Conversation(scenario, *client_and_server(lan, wan)).talk_udp()
    return scenario


def forwarded():
    """A server inside that is reached by the router's own address and another port."""
    lan, wan = lan_port(), wan_port()
    scenario = Scenario("forward-udp", inside(lan) + outside(wan) + ["nat@wan0", "port-forward"])
    Conversation(scenario, Host(wan, SERVER, SERVER_PORT), Host(lan, CLIENT, CLIENT_PORT),
                 exposed=(PUBLIC, PUBLIC_PORT)).talk_udp()
    return scenario


def priority():
    """A tag's priority lives through the change of the VLAN."""
    return plain("vlan-priority",
                 Vlan(lan_port(), LAN_VLAN, TAG_PRIORITY, TAG_PRIORITY),
                 Vlan(wan_port(), WAN_VLAN, TAG_PRIORITY, TAG_PRIORITY))


def scenarios():
    yield translated("nat-tcp", lan_port(), wan_port(), lambda c: c.talk_tcp())
    yield translated("nat-udp", lan_port(), wan_port(), lambda c: c.talk_udp())
    yield translated("nat-udp-no-checksum", lan_port(), wan_port(), lambda c: c.talk_udp(chksum=0))
    yield forwarded()
    yield plain("routed", lan_port(), wan_port())
    yield plain("raw-ip", RawIp("tun0"), wan_port())
    yield plain("vlan-in", Vlan(lan_port(), LAN_VLAN), wan_port())
    yield translated("vlan-out", lan_port(), Vlan(wan_port(), WAN_VLAN), lambda c: c.talk_tcp())
    yield priority()
