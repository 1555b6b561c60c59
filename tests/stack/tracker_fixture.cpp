// SPDX-License-Identifier: GPL-2.0-only
#include "tests/stack/tracker_fixture.h"

#include "kernel/fast_path.h"
#include "kernel/slab.h"

namespace tarvelo::test {
namespace {

note_taking_module* notes = nullptr;

void note_add(vok_handle*, sk_buff* skb, unsigned int hook, nf_conn* ct, int info,
              const nf_conntrack_tuple* translated) {
  notes->adds.push_back({hook, info, skb->dev->name, skb->rx_dev->name,
                         (skb->fast_flags & fast_flag::add_as_reply) != 0,
                         translated != nullptr ? tuple_text(*translated) : "-", bytes_of(skb)});
  if (notes->on_add) notes->on_add(ct);
}

int note_delete(vok_handle*, nf_conn* ct) {
  notes->deletes.push_back(tuple_text(ct->tuple[IP_CT_DIR_ORIGINAL]));
  return 0;
}

int give_record(nf_conn* ct) {
  ct->vok_ext = static_cast<vok_ct_ext*>(kzalloc(sizeof(vok_ct_ext), GFP_ATOMIC));
  if (ct->vok_ext == nullptr) return -1;
  ++notes->records;
  return 0;
}

int take_record(nf_conn* ct) {
  if (ct->vok_ext == nullptr) return -1;
  kfree(ct->vok_ext);
  ct->vok_ext = nullptr;
  --notes->records;
  return 0;
}

stack::device_config device(const std::string& name, const std::string& address, u8 length) {
  stack::device_config made;
  made.name = name;
  made.addresses.push_back(stack::ipv4_prefix{ip4(address), length});
  return made;
}

}  // namespace

note_taking_module::note_taking_module() {
  notes = this;
  handle_._ip_conntrack_ipct_add = note_add;
  handle_._ip_conntrack_ipct_delete = note_delete;
  handle_._vok_nf_conntrack_ext_alloc = give_record;
  handle_._vok_nf_conntrack_ext_free = take_record;
  rcu_assign_pointer(kcih, &handle_);
}

note_taking_module::~note_taking_module() {
  withdraw();
  EXPECT_EQ(records, 0) << "a connection has kept the module's record";
}

void note_taking_module::withdraw() {
  rcu_assign_pointer(kcih, static_cast<vok_handle*>(nullptr));
  synchronize_rcu();
}

std::string tuple_text(const nf_conntrack_tuple& tuple) {
  return ip4_text(tuple.src.u3.ip) + ":" + std::to_string(wire::ntohs(tuple.src.u)) + ">" +
         ip4_text(tuple.dst.u3.ip) + ":" + std::to_string(wire::ntohs(tuple.dst.u));
}

tracker_test::tracker_test() {
  config.devices = {device("lan0", "192.168.1.1", 24), device("wan0", router_address, 24)};
}

tracker_test::~tracker_test() = default;

stack::connection_tracker& tracker_test::tracker() {
  if (!tracker_) {
    tracker_ = std::make_unique<stack::connection_tracker>(
        config, [this](const std::string& name) -> net_device* {
          if (name == "lan0") return lan;
          return name == "wan0" ? wan.get() : nullptr;
        });
  }
  return *tracker_;
}

sk_buff* tracker_test::carry(const packet& p, net_device* in, net_device* out,
                             stack::track_verdict* verdict) {
  sk_buff* skb = make_skb(p.build(), in);
  skb->network_header = static_cast<u16>(skb->data - skb->head);
  skb->transport_header = static_cast<u16>(skb->network_header + (skb->data[0] & 0x0F) * 4);
  stack::connection_tracker& through = tracker();
  const stack::stack_guard guard;
  *verdict = through.pre_routing(skb);
  if (*verdict == stack::track_verdict::drop) return skb;
  if (out == nullptr) {
    *verdict = through.local_in(skb);
    return skb;
  }
  skb->dev = out;
  *verdict = through.post_routing(skb);
  return skb;
}

passage tracker_test::forward(const packet& p, net_device* in, net_device* out) {
  stack::track_verdict verdict;
  sk_buff* skb = carry(p, in, out, &verdict);
  passage result{verdict == stack::track_verdict::drop, bytes_of(skb), skb->nfctinfo, 0,
                 skb->fast_flags};
  if (skb->nfct != nullptr) result.tcp_state = nf_ct_tcp_state(nf_ct_of(skb->nfct));
  if (!result.dropped) {
    EXPECT_TRUE(sound_frame(result.packet, link::ip));
  }
  in_softirq([&] { kfree_skb(skb); });
  return result;
}

passage tracker_test::to_router(const packet& p) {
  return forward(p, wan, nullptr);
}

void expect_packet(const bytes& actual, const packet& expected, const std::string& what) {
  const bytes wanted = expected.build();
  EXPECT_EQ(describe(actual, link::ip), describe(wanted, link::ip)) << what;
  EXPECT_EQ(actual, wanted) << what << "\n"
                            << hex_dump(actual) << "instead of\n"
                            << hex_dump(wanted);
}

}  // namespace tarvelo::test
