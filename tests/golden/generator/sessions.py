# SPDX-License-Identifier: GPL-2.0-only
"""PPPoE, L2TP and PPTP, each in and out, on what they can stand on."""
from links import Pppoe
from networks import (LAN_SESSION, TUNNEL_OWN, WAN_SESSION, CLIENT_PORT, inside, l2tp, lan_links,
                      lan_port, pptp, wan_links, wan_port)
from conversation import Conversation
from routed import client_and_server, translated
from scenario import Scenario


def tunnelled(name, lan, tunnel, tcp=False):
    scenario = Scenario(name, inside(lan) + tunnel.pieces + [f"nat@{tunnel.device}"])
    conversation = Conversation(scenario, *client_and_server(lan, tunnel),
                                public=(TUNNEL_OWN, CLIENT_PORT))
    conversation.talk_tcp() if tcp else conversation.talk_udp()
    return scenario


def pppoe():
    """Out and in, with a VLAN on either side, both or none."""
    for lan_suffix in lan_links():
        for wan_suffix in wan_links():
            lan, wan = lan_links()[lan_suffix], wan_links()[wan_suffix]
            yield translated(f"pppoe-lan{lan_suffix}-wan{wan_suffix}", lan,
                             Pppoe(wan, "ppp0", WAN_SESSION), lambda c: c.talk_tcp())


def pppoe_to_pppoe():
    for lan_suffix in lan_links():
        for wan_suffix in wan_links():
            lan, wan = lan_links()[lan_suffix], wan_links()[wan_suffix]
            yield translated(f"pppoe-lan{lan_suffix}-pppoe-wan{wan_suffix}",
                             Pppoe(lan, "ppp9", LAN_SESSION), Pppoe(wan, "ppp0", WAN_SESSION),
                             lambda c: c.talk_udp())


def tunnels():
    for tunnel, options in ((l2tp, {}), (l2tp, {"send_seq": True}), (pptp, {}),
                            (pptp, {"compress": True}), (pptp, {"omit": True}),
                            (pptp, {"compress": True, "omit": True})):
        suffix = "".join(f"-{option}" for option in options)
        yield tunnelled(f"{tunnel.__name__}{suffix}", lan_port(), tunnel(wan_port(), **options))
    for tunnel in (l2tp, pptp):
        name = tunnel.__name__
        yield tunnelled(f"{name}-vlans", lan_links()["-vlan"], tunnel(wan_links()["-vlan"]),
                        tcp=True)
        for suffix, wan in wan_links().items():
            yield tunnelled(f"{name}-over-pppoe{suffix}", lan_port(),
                            tunnel(Pppoe(wan, "ppp0", WAN_SESSION)))
        for suffix, lan in lan_links().items():
            yield tunnelled(f"pppoe{suffix}-to-{name}", Pppoe(lan, "ppp9", LAN_SESSION),
                            tunnel(wan_port()))


def scenarios():
    yield from pppoe()
    yield from pppoe_to_pppoe()
    yield from tunnels()
