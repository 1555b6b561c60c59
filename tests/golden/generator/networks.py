# SPDX-License-Identifier: GPL-2.0-only
"""The networks around the router in most scenarios, and what it is told about them."""
from links import L2tp, Port, Pppoe, Pptp, RawIp, Vlan

CLIENT, CLIENT6 = "192.168.1.2", "2001:db8:1::2"
LAN_OWN, LAN_OWN6 = "192.168.1.1", "2001:db8:1::1"
SERVER, SERVER6 = "198.18.0.7", "2001:db8:7::7"
PUBLIC, PUBLIC6 = "203.0.113.9", "2001:db8:2::1"
GATEWAY, GATEWAY6 = "203.0.113.1", "2001:db8:2::fe"
L2TP_REMOTE, PPTP_REMOTE = "198.51.100.7", "198.51.100.8"
TUNNEL_OWN, TUNNEL_PEER = "10.8.0.2", "10.8.0.1"
CLIENT_PORT, SERVER_PORT = 40000, 9
LAN_VLAN, WAN_VLAN = 10, 7
LAN_SESSION, WAN_SESSION = 0x2211, 0x1234

LAN_MAC, CLIENT_MAC = "02:00:00:00:01:01", "02:00:00:00:01:02"
WAN_MAC, GATEWAY_MAC = "02:00:00:00:02:01", "02:00:00:00:02:02"


def lan_port(**options):
    return Port("lan0", LAN_MAC, CLIENT_MAC, **options)


def wan_port(**options):
    return Port("wan0", WAN_MAC, GATEWAY_MAC, **options)


def neighbour(link, address):
    return ("neighbour", {"device": link.device, "address": address, "mac": link.peer_mac})


def is_session(link):
    return isinstance(link, (Pppoe, L2tp, Pptp, RawIp))


def inside(link, family=4):
    """Tables of the side with the client: a network, or a session with the client alone."""
    own, client = (LAN_OWN, CLIENT) if family == 4 else (LAN_OWN6, CLIENT6)
    if is_session(link):
        return link.tables({"address": [f"{LAN_OWN}/32"], "peer": CLIENT} if family == 4
                           else {"address": [f"{LAN_OWN6}/64"]})
    return (link.tables({"address": [f"{own}/{24 if family == 4 else 64}"]})
            + [neighbour(link, client)])


def default_route(link, via, family=4):
    to = "0.0.0.0/0" if family == 4 else "::/0"
    route = {"to": to, "device": link.device}
    if via:
        route["via"] = via
    return ("route", route)


def outside(link, family=4):
    """Tables of the side towards the Internet, the default route included."""
    if is_session(link):
        if family == 4:
            return (link.tables({"address": [f"{PUBLIC}/32"], "peer": GATEWAY})
                    + [default_route(link, GATEWAY)])
        return link.tables({"address": [f"{PUBLIC6}/64"]}) + [default_route(link, None, 6)]
    own, gateway, length = (PUBLIC, GATEWAY, 24) if family == 4 else (PUBLIC6, GATEWAY6, 64)
    return (link.tables({"address": [f"{own}/{length}"]})
            + [neighbour(link, gateway), default_route(link, gateway, family)])


def tunnel_way(link, remote):
    """Tables of the side that a tunnel to `remote` leaves by."""
    if is_session(link):
        tables = link.tables({"address": [f"{PUBLIC}/32"], "peer": GATEWAY})
    else:
        tables = link.tables({"address": [f"{PUBLIC}/24"]}) + [neighbour(link, GATEWAY)]
    return tables + [("route", {"to": f"{remote}/32", "via": GATEWAY, "device": link.device})]


def l2tp(way, **options):
    return L2tp(way, tunnel_way(way, L2TP_REMOTE), "ppp1", PUBLIC, L2TP_REMOTE, **options)


def pptp(way, **options):
    return Pptp(way, tunnel_way(way, PPTP_REMOTE), "ppp2", PUBLIC, PPTP_REMOTE, **options)


def through_tunnel(tunnel):
    """Tables of a tunnel that everything goes through."""
    return (tunnel.tables({"address": [f"{TUNNEL_OWN}/32"], "peer": TUNNEL_PEER})
            + [default_route(tunnel, TUNNEL_PEER)])


def lan_links():
    """Ethernet with and without a VLAN, to stand things on."""
    return {"": lan_port(), "-vlan": Vlan(lan_port(), LAN_VLAN)}


def wan_links():
    return {"": wan_port(), "-vlan": Vlan(wan_port(), WAN_VLAN)}
