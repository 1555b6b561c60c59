// SPDX-License-Identifier: GPL-2.0-only
#include "tests/module/ipv6_scene.h"

#include <cstring>
#include <stdexcept>

namespace tarvelo::test {

nf_conntrack_tuple make_tuple6(u8 protocol, endpoint source, endpoint destination) {
  nf_conntrack_tuple tuple{};
  const wire::in6_addr from = ip6(source.address), to = ip6(destination.address);
  std::memcpy(tuple.src.u3.in6, from.bytes, sizeof from);
  std::memcpy(tuple.dst.u3.in6, to.bytes, sizeof to);
  tuple.src.u = wire::htons(source.port);
  tuple.dst.u = wire::htons(destination.port);
  tuple.src.l3num = NFPROTO_IPV6;
  tuple.dst.protonum = protocol;
  return tuple;
}

flow_key_v6 key6(u8 protocol, endpoint source, endpoint destination) {
  return {ip6(source.address), ip6(destination.address), wire::htons(source.port),
          wire::htons(destination.port), protocol};
}

scoped_route6::scoped_route6(std::string_view prefix, u8 length, std::string_view gateway,
                             net_device* dev, rt_class type)
    : prefix_(ip6(prefix)), length_(length) {
  const wire::in6_addr via = ip6(gateway);
  if (ip6_route_add(&prefix_, length_, type, &via, dev) != 0) {
    throw std::runtime_error("cannot add route " + std::string(prefix));
  }
}

scoped_route6::~scoped_route6() {
  ip6_route_del(&prefix_, length_);
}

scoped_neighbour6::scoped_neighbour6(std::string_view address, net_device* dev,
                                     std::string_view hardware_address, u8 state) {
  const wire::in6_addr key = ip6(address);
  neigh_ = neigh_create(&nd_tbl, &key, dev);
  if (neigh_ == nullptr) throw std::bad_alloc();
  neigh_update(neigh_, mac_of(hardware_address).at, state);
}

scoped_neighbour6::~scoped_neighbour6() {
  neigh_remove(neigh_);
  neigh_release(neigh_);
}

u32 make_report(const report6& r) {
  sk_buff* skb = make_skb(r.frame, r.dev);
  skb->rx_dev = r.rx_dev;
  skb->fast_flags = r.fast_flags;
  skb->network_header = static_cast<u16>(skb_headroom(skb) + wire::ethernet_length);
  skb->transport_header = static_cast<u16>(skb_headroom(skb) + r.l4);
  if (r.ct != nullptr) {
    nf_conntrack_get(&r.ct->ct_general);
    skb->nfct = &r.ct->ct_general;
    skb->nfctinfo = r.info;
  }
  return in_softirq([&] {
    const auto* ip = reinterpret_cast<const wire::ipv6hdr*>(skb_network_header(skb));
    if (r.routed) {
      EXPECT_EQ(ip6_route_input(skb, &ip->daddr), 0);
    }
    vok_handle* ci = rcu_dereference(kcih);
    ci->__ipv6_conntrack_ipc_add(ci, skb);
    const u32 flags = skb->fast_flags;
    kfree_skb(skb);
    return flags;
  });
}

packet packet6(packet link, u8 protocol, endpoint from, endpoint to) {
  link.ipv6(from.address, to.address);
  if (protocol == wire::ip_protocol::tcp) {
    link.tcp(from.port, to.port).flags(wire::tcp_flag::ack).seq(1000, 2000);
  } else {
    link.udp(from.port, to.port);
  }
  return link;
}

packet fragment6(packet link, u32 id, u16 word, endpoint from, endpoint to, u8 protocol) {
  wire::ipv6_frag_hdr header = {};
  header.nexthdr = protocol;
  header.frag_off = wire::be16(word);
  header.identification = wire::be32(id);
  const auto* bytes_of_header = reinterpret_cast<const u8*>(&header);
  return link.ipv6(from.address, to.address)
      .type(wire::ip_protocol::ipv6_fragment)
      .raw({bytes_of_header, sizeof header});
}

report6 ipv6_scene::outbound(const tracked_connection& ct, u8 protocol) {
  return {packet6(ethernet(lan_mac, host_mac), protocol, inside6, peer6).build(), ct.get(),
          IP_CT_ESTABLISHED, lan, lan};
}

report6 ipv6_scene::inbound(const tracked_connection& ct, u8 protocol) {
  return {packet6(ethernet(wan_mac, gateway_mac), protocol, peer6, inside6).build(), ct.get(),
          IP_CT_ESTABLISHED_REPLY, wan, wan};
}

ipc_v6_entry* ipv6_scene::find6(u8 protocol, endpoint from, endpoint to) {
  return _vok_ipc_v6_lkup(kcih, ip6(from.address), ip6(to.address), protocol,
                          wire::htons(from.port), wire::htons(to.port));
}

}  // namespace tarvelo::test
