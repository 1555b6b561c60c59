# SPDX-License-Identifier: GPL-2.0-only
"""The networks around the router in most scenarios; routers.toml tells the router about them."""
from links import L2tp, Port, Pptp, Vlan

CLIENT, CLIENT6 = "192.168.1.2", "2001:db8:1::2"
SERVER, SERVER6 = "198.18.0.7", "2001:db8:7::7"
PUBLIC = "203.0.113.9"
L2TP_REMOTE, PPTP_REMOTE = "198.51.100.7", "198.51.100.8"
TUNNEL_OWN = "10.8.0.2"
CLIENT_PORT, SERVER_PORT = 40000, 9
LAN_VLAN, WAN_VLAN = 10, 7
LAN_SESSION, WAN_SESSION = 0x2211, 0x1234

LAN_MAC, CLIENT_MAC = "02:00:00:00:01:01", "02:00:00:00:01:02"
WAN_MAC, GATEWAY_MAC = "02:00:00:00:02:01", "02:00:00:00:02:02"


def lan_port(**options):
    return Port("lan0", LAN_MAC, CLIENT_MAC, **options)


def wan_port(**options):
    return Port("wan0", WAN_MAC, GATEWAY_MAC, **options)


def inside(link, family=4):
    """The router's pieces on the side with the client."""
    return link.pieces + [f"client{'' if family == 4 else 6}@{link.device}"]


def outside(link, family=4):
    """Those towards the Internet, the default route included."""
    suffix = "" if family == 4 else "6"
    return link.pieces + [f"public{suffix}@{link.device}", f"default{suffix}@{link.device}"]


def l2tp(way, **options):
    return L2tp(way, "ppp1", PUBLIC, L2TP_REMOTE, **options)


def pptp(way, **options):
    return Pptp(way, "ppp2", PUBLIC, PPTP_REMOTE, **options)


def lan_links():
    """Ethernet with and without a VLAN, to stand things on."""
    return {"": lan_port(), "-vlan": Vlan(lan_port(), LAN_VLAN)}


def wan_links():
    return {"": wan_port(), "-vlan": Vlan(wan_port(), WAN_VLAN)}
