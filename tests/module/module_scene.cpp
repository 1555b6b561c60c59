// SPDX-License-Identifier: GPL-2.0-only
#include "tests/module/module_scene.h"

#include "kernel/proc_tree.h"
#include "module/core/init.h"
#include "module/forward/entry.h"

namespace tarvelo::test {

std::unique_ptr<loaded_module> load_module() {
  std::string error;
  auto loaded = loaded_module::load_linked(init_module, cleanup_module, &__this_module, &error);
  EXPECT_NE(loaded, nullptr) << error;
  return loaded;
}

u32 make_report(const report& r) {
  sk_buff* skb = make_skb(r.frame, r.dev);
  skb->rx_dev = r.rx_dev;
  skb->fast_flags = r.fast_flags;
  skb->network_header = static_cast<u16>(skb_headroom(skb) + wire::ethernet_length);
  if (r.carried != nullptr) {
    skb->nfct = const_cast<nf_conntrack*>(r.carried);
    nf_conntrack_get(skb->nfct);
  }
  return in_softirq([&] {
    vok_handle* ci = rcu_dereference(kcih);
    ci->_ip_conntrack_ipct_add(ci, skb, r.hook, r.ct, r.info, r.tuple ? &*r.tuple : nullptr);
    const u32 flags = skb->fast_flags;
    kfree_skb(skb);
    return flags;
  });
}

fate offer(const bytes& frame, net_device* dev, u32 headroom) {
  sk_buff* skb = make_skb(frame, dev, headroom);
  return in_softirq([&] {
    const fate result = forward_frame(rcu_dereference(kcih), skb);
    if (is_handed_back(result)) {
      EXPECT_FRAME_EQ(bytes_of(skb), frame);
      EXPECT_EQ(skb_headroom(skb), headroom);
      EXPECT_EQ(skb->nfct, nullptr);
      EXPECT_EQ(skb->dev, dev);
      EXPECT_EQ(skb->fast_flags & ~fast_flag::pppoe, 0U);
      kfree_skb(skb);
    }
    return result;
  });
}

module_scene::module_scene() {
  const auto lines = log.take_text();
  EXPECT_EQ(lines, std::vector<std::string>{"###tarvelo init successfull####\n"});
}

report module_scene::source_nat(const tracked_connection& ct, u8 protocol, bool reply) {
  const nf_conntrack* carried = &ct->ct_general;
  if (reply) {
    return {packet_of(protocol, wan_mac, gateway_mac, peer, translated).build(),
            ct.get(),
            carried,
            NF_INET_PRE_ROUTING,
            IP_CT_ESTABLISHED_REPLY,
            wan,
            wan,
            tuple(protocol, peer, inside)};
  }
  return {packet_of(protocol, lan_mac, host_mac, inside, peer).build(),
          ct.get(),
          carried,
          NF_INET_POST_ROUTING,
          IP_CT_ESTABLISHED,
          wan,
          lan,
          tuple(protocol, translated, peer)};
}

report module_scene::destination_nat(const tracked_connection& ct, u8 protocol, bool reply) {
  const nf_conntrack* carried = &ct->ct_general;
  if (reply) {
    return {packet_of(protocol, lan_mac, host_mac, inside, peer).build(),
            ct.get(),
            carried,
            NF_INET_POST_ROUTING,
            IP_CT_ESTABLISHED_REPLY,
            wan,
            lan,
            tuple(protocol, translated, peer),
            fast_flag::add_as_reply};
  }
  return {packet_of(protocol, wan_mac, gateway_mac, peer, translated).build(),
          ct.get(),
          carried,
          NF_INET_PRE_ROUTING,
          IP_CT_ESTABLISHED,
          wan,
          wan,
          tuple(protocol, peer, inside)};
}

void module_scene::ripen(const report& r) {
  for (int i = 0; i < ripe; ++i)
    make_report(r);
}

packet packet_of(u8 protocol, const char* to_mac, const char* from_mac, endpoint from,
                 endpoint to) {
  packet p;
  p.eth(to_mac, from_mac).ipv4(from.address, to.address);
  if (protocol == wire::ip_protocol::tcp) {
    p.tcp(from.port, to.port).flags(wire::tcp_flag::ack).seq(1000, 2000);
  } else {
    p.udp(from.port, to.port);
  }
  return p;
}

std::string control_text(const std::string& name) {
  std::string text;
  int error = 0;
  EXPECT_TRUE(proc::read_all("vok/" + name, &text, &error)) << name << ": " << error;
  return text;
}

}  // namespace tarvelo::test
