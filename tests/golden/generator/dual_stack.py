# SPDX-License-Identifier: GPL-2.0-only
"""IPv6: routed as it is, hop limit unchanged on the fast path, also over VLANs and PPPoE."""
from conversation import Conversation, Host
from links import Pppoe
from networks import (CLIENT6, CLIENT_PORT, LAN_SESSION, SERVER6, SERVER_PORT, WAN_SESSION, inside,
                      lan_links, outside, wan_links)
from scenario import Scenario


def routed(name, lan, wan, talk):
    scenario = Scenario(name, inside(lan, 6) + outside(wan, 6))
    talk(Conversation(scenario, Host(lan, CLIENT6, CLIENT_PORT),
                      Host(wan, SERVER6, SERVER_PORT)))
    return scenario


def scenarios():
    for suffix in lan_links():
        lan, wan = lan_links, wan_links
        yield routed(f"ipv6-tcp{suffix}", lan()[suffix], wan()[suffix], lambda c: c.talk_tcp())
        yield routed(f"ipv6-udp{suffix}", lan()[suffix], wan()[suffix], lambda c: c.talk_udp())
        yield routed(f"ipv6-pppoe{suffix}", lan()[""], Pppoe(wan()[suffix], "ppp0", WAN_SESSION),
                     lambda c: c.talk_tcp())
        yield routed(f"ipv6-pppoe-from-vlan{suffix}", lan()["-vlan"],
                     Pppoe(wan()[suffix], "ppp0", WAN_SESSION), lambda c: c.talk_udp())
        yield routed(f"ipv6-pppoe-pppoe{suffix}", Pppoe(lan()[suffix], "ppp9", LAN_SESSION),
                     Pppoe(wan()[suffix], "ppp0", WAN_SESSION), lambda c: c.talk_udp())
