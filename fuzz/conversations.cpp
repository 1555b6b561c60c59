// SPDX-License-Identifier: GPL-2.0-only
#include "fuzz/conversations.h"

namespace tarvelo::fuzz {
namespace {

using test::packet;

constexpr const char* host_mac = "02:00:00:00:01:02";
constexpr const char* lan_mac = "02:00:00:00:01:01";
constexpr const char* gateway_mac = "02:00:00:00:02:02";
constexpr const char* tunnel_end_mac = "02:00:00:00:02:50";
constexpr const char* concentrator_mac = "02:00:00:00:09:01";
constexpr const char* wan_mac = "02:00:00:00:02:01";
constexpr const char* bridge_mac = "02:00:00:00:03:01";
constexpr const char* guest_macs[] = {"02:00:00:00:05:02", "02:00:00:00:05:03",
                                      "02:00:00:00:05:04"};

constexpr const char* host = "192.168.1.2";
constexpr const char* server = "198.51.100.7";
constexpr const char* wan_address = "203.0.113.9";
constexpr const char* tunnel_end = "203.0.113.50";
constexpr const char* host6 = "2001:db8:1::2";
constexpr const char* server6 = "2001:db8:7::7";

constexpr u16 line_vid = 7;
constexpr u16 guest_vid = 20;
constexpr u16 pppoe_session = 4660;
constexpr u16 l2tp_port = 1701;
constexpr u16 l2tp_numbered = 0x0802;
constexpr u16 own_tunnel = 10;
constexpr u16 own_session = 30;
constexpr u16 own_call = 5;
constexpr u8 plain_ack = wire::tcp_flag::ack;

[[nodiscard]] packet from_host() {
  return packet().eth(lan_mac, host_mac);
}
[[nodiscard]] packet from_gateway() {
  return packet().eth(wan_mac, gateway_mac);
}
[[nodiscard]] packet from_tunnel_end() {
  return packet().eth(wan_mac, tunnel_end_mac).ipv4(tunnel_end, wan_address);
}
[[nodiscard]] packet pppoe_line() {
  return packet().eth(wan_mac, concentrator_mac).vlan(line_vid).pppoe(pppoe_session);
}

/// TCP begins with a handshake: that of `there` with the first two frames.
[[nodiscard]] conversation over_tcp(const char* name, const char* from, const packet& there,
                                    const char* to, const packet& back) {
  using namespace wire::tcp_flag;
  return {name,
          {{from, packet(there).flags(syn).build()}, {to, packet(back).flags(syn | ack).build()}},
          {from, packet(there).flags(plain_ack).payload(20).build()},
          {to, packet(back).flags(plain_ack).payload(20).build()}};
}

[[nodiscard]] conversation over_udp(const char* name, const char* from, const packet& there,
                                    const char* to, const packet& back) {
  return {
      name, {}, {from, packet(there).payload(20).build()}, {to, packet(back).payload(20).build()}};
}

[[nodiscard]] conversation bridged(const char* name, const char* from, const packet& there,
                                   const char* to, const packet& back) {
  conversation c = over_udp(name, from, there, to, back);
  c.opening = {c.there, c.back};
  return c;
}

[[nodiscard]] std::vector<conversation> make() {
  return {
      over_tcp("tcp behind source translation", "lan0",
               from_host().ipv4(host, server).tcp(40000, 80), "wan0",
               from_gateway().ipv4(server, wan_address).tcp(80, 40000)),
      over_udp("udp behind source translation", "lan0",
               from_host().ipv4(host, server).udp(40000, 53), "wan0",
               from_gateway().ipv4(server, wan_address).udp(53, 40000)),
      over_tcp("port forward", "wan0",
               from_gateway().ipv4("198.51.100.8", wan_address).tcp(5000, 8080), "lan0",
               from_host().ipv4(host, "198.51.100.8").tcp(80, 5000)),
      over_tcp("ipv6", "lan0", from_host().ipv6(host6, server6).tcp(40000, 80), "wan0",
               from_gateway().ipv6(server6, host6).tcp(80, 40000)),
      over_udp("udp over ipv6", "lan0", from_host().ipv6(host6, server6).udp(40000, 53), "wan0",
               from_gateway().ipv6(server6, host6).udp(53, 40000)),
      bridged(
          "bridged", "lan1",
          packet().eth(guest_macs[1], guest_macs[0]).ipv4("192.168.2.2", "192.168.2.3").udp(1, 2),
          "lan2",
          packet().eth(guest_macs[0], guest_macs[1]).ipv4("192.168.2.3", "192.168.2.2").udp(2, 1)),
      bridged(
          "bridged into a VLAN", "lan1",
          packet().eth(guest_macs[2], guest_macs[0]).ipv4("192.168.2.2", "192.168.2.4").udp(1, 2),
          "lan3",
          packet()
              .eth(guest_macs[0], guest_macs[2])
              .vlan(guest_vid)
              .ipv4("192.168.2.4", "192.168.2.2")
              .udp(2, 1)),
      {"from the bridge",
       {{"lan1", packet()
                     .eth("FF:FF:FF:FF:FF:FF", guest_macs[0])
                     .arp(wire::arp_op::request, guest_macs[0], "192.168.2.2", "00:00:00:00:00:00",
                          "192.168.2.1")
                     .build()}},
       {"lan1", packet()
                    .eth(bridge_mac, guest_macs[0])
                    .ipv4("192.168.2.2", server)
                    .udp(40001, 53)
                    .payload(20)
                    .build()},
       {"wan0", from_gateway().ipv4(server, wan_address).udp(53, 40001).payload(20).build()}},
      over_udp("pppoe", "lan0", from_host().ipv4(host, "198.18.100.5").udp(40002, 53), "wan0",
               pppoe_line().ipv4("198.18.100.5", "198.18.0.9").udp(53, 40002)),
      over_udp("l2tp", "lan0", from_host().ipv4(host, "10.8.0.1").udp(40003, 53), "wan0",
               from_tunnel_end()
                   .udp(l2tp_port, l2tp_port)
                   .l2tp(l2tp_numbered, own_tunnel, own_session)
                   .ppp()
                   .ipv4("10.8.0.1", host)
                   .udp(53, 40003)),
      over_udp("pptp", "lan0", from_host().ipv4(host, "10.9.0.1").udp(40004, 53), "wan0",
               from_tunnel_end().gre(own_call, 1, 1).ppp().ipv4("10.9.0.1", host).udp(53, 40004)),
      over_udp("bare ip", "lan0", from_host().ipv4(host, "10.10.0.2").udp(40005, 53), "tun0",
               packet().ipv4("10.10.0.2", host).udp(53, 40005)),
  };
}

}  // namespace

std::vector<sent_frame> fragments() {
  const packet base = from_host().ipv4(host, server).id(0x1234);
  return {
      {"lan0", packet(base).fragment(0, true).udp(40000, 53).udp_length(56).payload(16).build()},
      {"lan0", packet(base).fragment(24, true).type(17).payload(16).build()},
      {"lan0", packet(base).fragment(40, false).type(17).payload(16).build()}};
}

const std::vector<conversation>& conversations() {
  static const std::vector<conversation> all = make();
  return all;
}

}  // namespace tarvelo::fuzz
