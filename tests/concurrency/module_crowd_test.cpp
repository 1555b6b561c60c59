// SPDX-License-Identifier: GPL-2.0-only
//
// The module alone, without the stack's lock that keeps adds, ends and sweeps apart: all of its
// operations at once on the same few connections and hosts, and at last its unloading.
#include <array>
#include <atomic>
#include <mutex>
#include <thread>
#include <tuple>

#include "kernel/proc_tree.h"
#include "kernel/rcupdate.h"
#include "module/brc/table.h"
#include "module/core/counters.h"
#include "module/ipc/remove.h"
#include "module/ipc/table.h"
#include "tests/concurrency/crowd.h"
#include "tests/module/ipv6_scene.h"
#include "tests/support/module_invariants.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;
constexpr u8 udp = wire::ip_protocol::udp;
constexpr u16 first_port = 20000;
constexpr std::size_t connections = 12;
constexpr const char* guest_mac = "02:00:00:00:01:03";
/// Behind a tunnel.
constexpr endpoint far_peer = {"198.51.100.8", 80};

/// One that no two processors meet in.
const net_device_ops* forgetting_ops() {
  static const net_device_ops operations{.ndo_start_xmit = [](sk_buff* skb, net_device*) {
    kfree_skb(skb);
    return NETDEV_TX_OK;
  }};
  return &operations;
}

/// A connection that is ended and made again; `ct` is followed in RCU read sides.
struct slot {
  u8 protocol;
  bool v6;
  endpoint client;
  endpoint public_end;
  endpoint server;
  net_device* out;
  std::mutex turn;  ///< of whoever ends it
  std::unique_ptr<tracked_connection> owner;
  nf_conn* ct;
  std::vector<bytes> there;  ///< the last two are fragments
  bytes back;
};

unsigned any_verdict(unsigned, u8, sk_buff*) {
  constexpr unsigned verdicts[] = {VOK_ACCEPT, VOK_DROP, VOK_ACCEPT, 3};
  thread_local u32 calls = 0;
  return verdicts[++calls % std::size(verdicts)];
}

class module_crowd : public ipv6_scene {
 protected:
  module_crowd() {
    // What goes to the inside leaves by a bridge, so that its entries hold on to its hosts.
    lan->priv_flags |= IFF_EBRIDGE;
    for (fake_device* dev : {&lan, &wan, &port})
      (*dev)->netdev_ops = forgetting_ops();
    hosts_[0] = host_at(host_mac, port);
    hosts_[1] = host_at(guest_mac, wan);
    for (const ::brc& one : hosts_)
      EXPECT_EQ(_vok_brc_add(kcih, &one), 0);
    for (std::size_t i = 0; i < connections; ++i)
      prepare(slots_[i], i);
  }
  ~module_crowd() override { end_all(); }

  [[nodiscard]] ::brc host_at(const char* address, net_device* sendif) {
    ::brc entry = {};
    const mac at = mac_of(address);
    std::copy(std::begin(at.at), std::end(at.at), entry.dmac);
    entry.bridgeID = bridge_id(lan);
    entry.sendif = sendif;
    entry.tag_mode = static_cast<u8>(tag_mode::untag);
    return entry;
  }

  void prepare(slot& s, std::size_t number) {
    const auto client_port = static_cast<u16>(first_port + number);
    s.v6 = number % 4 == 2;
    if (s.v6) return prepare_v6(s, client_port);
    const bool tunnelled = number % 4 == 0;
    s.protocol = number % 2 == 0 ? tcp : udp;
    s.client = {inside.address, client_port};
    s.public_end = {translated.address, client_port};
    s.server = tunnelled ? far_peer : peer;
    s.out = tunnelled ? tunnel_->dev.get() : wan.get();
    s.back = packet_of(s.protocol, wan_mac, gateway_mac, s.server, s.public_end).payload(8).build();
    if (tunnelled) s.back = out_of_tunnel(s);
    packet there = packet_of(s.protocol, lan_mac, host_mac, s.client, s.server);
    s.there = {there.payload(8).build()};
    if (s.protocol == udp) {
      packet base;
      base.eth(lan_mac, host_mac).ipv4(s.client.address, peer.address).id(client_port);
      s.there.push_back(packet(base).fragment(0, true).udp(client_port, peer.port).build());
      s.there.push_back(packet(base).fragment(8, false).type(udp).payload(16).build());
    }
    begin(s);
  }

  void prepare_v6(slot& s, u16 client_port) {
    s.protocol = tcp;
    s.client = s.public_end = {inside6.address, client_port};
    s.server = peer6;
    s.out = wan;
    s.there = {packet6(ethernet(lan_mac, host_mac), tcp, s.client, s.server).build()};
    s.back = packet6(ethernet(wan_mac, gateway_mac), tcp, s.server, s.client).build();
    begin(s);
  }

  [[nodiscard]] static bytes out_of_tunnel(const slot& s) {
    constexpr u16 plain_data = 0x0002;
    return packet()
        .eth(wan_mac, gateway_mac)
        .ipv4(upstream_tunnel_remote.address, upstream_tunnel_local.address)
        .udp(upstream_tunnel_remote.port, upstream_tunnel_local.port)
        .no_checksum()
        .l2tp(plain_data, upstream_ids, upstream_ids + session_step)
        .ppp()
        .ipv4(s.server.address, s.public_end.address)
        .tcp(s.server.port, s.public_end.port)
        .flags(wire::tcp_flag::ack)
        .build();
  }

  static void begin(slot& s) {
    const auto make = s.v6 ? make_tuple6 : tuple;
    s.owner = std::make_unique<tracked_connection>(make(s.protocol, s.client, s.server),
                                                   make(s.protocol, s.server, s.public_end));
    rcu_assign_pointer(s.ct, s.owner->get());
  }
  /// Whoever has a reference makes the end complete.
  static void end(slot& s) {
    rcu_assign_pointer(s.ct, static_cast<nf_conn*>(nullptr));
    s.owner.reset();
  }
  void end_all() {
    for (slot& s : slots_)
      end(s);
  }

  [[nodiscard]] slot& any_slot(small_random& random) { return slots_[random() % connections]; }

  void forward(small_random& random) {
    for (int i = 0; i < 16; ++i) {
      slot& s = any_slot(random);
      switch (random() % 4) {
        case 0:
          std::ignore = offer(bridged_, port);
          break;
        case 1:
          std::ignore = offer(s.back, wan);
          break;
        default:
          std::ignore = offer(s.there[random() % s.there.size()], lan);
      }
    }
  }

  /// As tracking does: the packet has a reference on its connection.
  void add(small_random& random) {
    const hosted::softirq_scope softirq;
    slot& s = any_slot(random);
    nf_conn* ct = rcu_dereference(s.ct);
    if (ct == nullptr || !atomic_inc_not_zero(&ct->ct_general.use)) return;
    const bool reply = random() % 2 == 0;
    report_packet(s, ct, reply);
    nf_conntrack_put(&ct->ct_general);
  }

  void report_packet(const slot& s, nf_conn* ct, bool reply) {
    if (s.v6) {
      net_device* in = reply ? s.out : lan.get();
      make_report(report6{reply ? s.back : s.there[0], ct,
                          reply ? IP_CT_ESTABLISHED_REPLY : IP_CT_ESTABLISHED, in, in});
    } else if (reply) {
      const packet inner =
          packet_of(s.protocol, wan_mac, gateway_mac, s.server, s.public_end).payload(8);
      make_report({inner.build(), ct, &ct->ct_general, NF_INET_PRE_ROUTING, IP_CT_ESTABLISHED_REPLY,
                   s.out, s.out, tuple(s.protocol, s.server, s.client)});
    } else {
      make_report({s.there[0], ct, &ct->ct_general, NF_INET_POST_ROUTING, IP_CT_ESTABLISHED, s.out,
                   lan, tuple(s.protocol, s.public_end, s.server)});
    }
  }

  static void replace(slot& s) {
    const std::scoped_lock turn(s.turn);
    end(s);
    begin(s);
  }
  void replace_all() {
    for (slot& s : slots_)
      replace(s);
  }
  void replace_one(small_random& random) {
    if (!is_over_) replace(any_slot(random));
    rest(random, 2);
  }

  static void remove_by_key(vok_handle* ci, const slot& s) {
    remove_by_key(ci, s, s.client, s.server);
    remove_by_key(ci, s, s.server, s.public_end);
  }
  static void remove_by_key(vok_handle* ci, const slot& s, endpoint from, endpoint to) {
    const u16 sport = wire::htons(from.port), dport = wire::htons(to.port);
    if (s.v6) {
      std::ignore = _vok_ipc_v6_delete(ci, ip6(from.address), ip6(to.address), tcp, sport, dport);
    } else {
      std::ignore =
          _vok_ipc_delete(ci, ip4(from.address), ip4(to.address), s.protocol, sport, dport);
    }
  }

  void remove(small_random& random) {
    {
      const hosted::softirq_scope softirq;
      vok_handle* ci = rcu_dereference(kcih);
      if (ci == nullptr) return;
      net_device* const devices[] = {lan, wan, port};
      switch (random() % 8) {
        case 0:
          ci->_vok_ipc_delete_by_dev(ci, devices[random() % 3]);
          break;
        case 1:
          ci->session_delete_ipc(ci, tunnel_->session());
          break;
        default:
          remove_by_key(ci, any_slot(random));
      }
    }
    rest(random, 2);
  }

  void move_hosts(small_random& random) {
    {
      const hosted::softirq_scope softirq;
      vok_handle* ci = rcu_dereference(kcih);
      if (ci == nullptr) return;
      ::brc guest = hosts_[random() % hosts_.size()];
      switch (random() % 4) {
        case 0:
          _vok_brc_delete(ci, guest.dmac, guest.bridgeID);
          break;
        case 1:
          guest.sendif = random() % 2 == 0 ? wan.get() : port.get();
          _vok_brc_update(ci, &guest);
          break;
        case 2:
          static_cast<void>(ci->_vok_brc_portal_change(ci, guest.dmac, 1));
          break;
        default:
          static_cast<void>(_vok_brc_add(ci, &guest));
      }
    }
    std::this_thread::yield();
  }

  /// What a look-up returns is good for the whole read side, whoever removes it meanwhile.
  void look_up(small_random& random) {
    const hosted::softirq_scope softirq;
    vok_handle* ci = rcu_dereference(kcih);
    if (ci == nullptr) return;
    const slot& s = any_slot(random);
    const u16 sport = wire::htons(s.server.port), dport = wire::htons(s.public_end.port);
    const ipc_entry* entry = nullptr;
    const ipc_v6_entry* entry6 = nullptr;
    if (s.v6) {
      entry6 =
          _vok_ipc_v6_lkup(ci, ip6(s.server.address), ip6(s.client.address), tcp, sport, dport);
    } else {
      entry = ci->_vok_ipc_lkup(ci, ip4(s.server.address), ip4(s.public_end.address), s.protocol,
                                sport, dport, 0);
    }
    const ::brc& guest = hosts_[random() % hosts_.size()];
    const ::brc* cached = ci->_vok_brc_lkup_brid(ci, guest.dmac, guest.bridgeID);
    for (int i = 0; i < 3; ++i) {
      std::this_thread::yield();
      EXPECT_TRUE(entry == nullptr || entry->dport == dport);
      EXPECT_TRUE(entry6 == nullptr || entry6->dport == dport);
      EXPECT_TRUE(entry == nullptr || entry->sendif != nullptr);
      EXPECT_TRUE(cached == nullptr || memcmp(cached->dmac, guest.dmac, sizeof guest.dmac) == 0);
    }
  }

  static void use_control_files(small_random& random) {
    read_some(random() % 2 == 0 ? "vok/ipc_info" : "vok/brc_info", random);
    if (random() % 4 == 0) static_cast<void>(proc::write_all("vok/enable", "0"));
    read_some("vok/ipc_count", random);
    static_cast<void>(proc::write_all("vok/enable", "1"));
    rest(random, 2);
  }

  void hook(small_random& random) {
    const std::scoped_lock turn(module_turn_);
    vok_handle* ci = rcu_dereference(kcih);
    if (ci == nullptr) return;
    constexpr u8 families[] = {2, 10};
    auto ops = std::make_unique<vok_hook_ops>(
        vok_hook_ops{{}, any_verdict, nullptr, families[random() % 2], random() % 4, 0, "crowd"});
    EXPECT_EQ(ci->_vok_register_hook(ci, ops.get()), 0);
    rest(random, 1);
    ci->_vok_unregister_hook(ci, ops.get());
    synchronize_rcu();
  }

  /// Nobody works: the tables are in order, and nobody holds a connection but its slot.
  void look() {
    ASSERT_EQ(broken_invariant(), "");
    for (const slot& s : slots_) {
      EXPECT_EQ(s.owner->references(), 1);
    }
    static_cast<void>(log.take());
  }

  void unload() {
    const std::scoped_lock turn(module_turn_);
    while (!module_->unload())
      std::this_thread::yield();
  }

  /// The stack takes all records back before the module goes; packets and readers may still come.
  void unload_under(crowd& all) {
    is_over_ = true;
    end_all();
    all.work_during([this] { unload(); });
    EXPECT_EQ(kcih, nullptr);
  }
  void load_again() {
    module_ = load_module();
    for (slot& s : slots_)
      begin(s);
    is_over_ = false;
  }

  /// Both directions of each connection.
  void fill() {
    for (const ::brc& one : hosts_)
      std::ignore = _vok_brc_add(kcih, &one);
    replace_all();
    for (const slot& s : slots_) {
      report_packet(s, s.ct, false);
      report_packet(s, s.ct, true);
    }
  }

  [[nodiscard]] std::vector<ending> endings(crowd& all) {
    return {
        {"unloading", [this, &all] { unload_under(all), load_again(); }, left::nothing, true},
        {"by key",
         [this] {
           for (const slot& s : slots_)
             remove_by_key(kcih, s);
         }},
        {"by device",
         [this] {
           for (net_device* dev : {wan.get(), port.get()})
             kcih->_vok_ipc_delete_by_dev(kcih, dev);
         }},
        {"the end of a session", [this] { kcih->session_delete_ipc(kcih, tunnel_->session()); },
         left::some},
        {"the end of the connection", [this] { replace_all(); }},
        {"the end of the connection while switched off",
         [this] {
           switch_fast_path(kcih, 0);
           replace_all();
         },
         left::all},
        {"the same, and switched on again",
         [this] {
           switch_fast_path(kcih, 0);
           replace_all();
           switch_fast_path(kcih, 1);
         }},
    };
  }

  fake_device port{"eth2", "02:00:00:00:01:11"};
  const bytes bridged_ = packet_of(udp, guest_mac, host_mac, inside, peer).build();
  std::array<::brc, 2> hosts_;
  const std::unique_ptr<ppp_interface> tunnel_{
      ppp_interface::l2tp("ppp1", upstream_tunnel_local, upstream_tunnel_remote, upstream_ids)};
  const scoped_route far_route_{far_peer.address, 32, "0.0.0.0", tunnel_->dev};
  std::array<slot, connections> slots_{};
  std::mutex module_turn_;
  std::atomic<bool> is_over_{false};
};

TEST_F(module_crowd, all_operations_at_once) {
  crowd all;
  for (int i = 0; i < 2; ++i) {
    all.add([this](small_random& random) { forward(random); });
    all.add([this](small_random& random) { add(random); });
  }
  all.add([this](small_random& random) { replace_one(random); });
  all.add([this](small_random& random) { remove(random); });
  all.add([this](small_random& random) { move_hosts(random); });
  all.add([this](small_random& random) { look_up(random); });
  all.add([](small_random& random) { use_control_files(random); });
  all.add([this](small_random& random) { hook(random); });
  all.add([](small_random& random) {
    pass(random() % 64 == 0 ? 10000 : 1);
    rest(random, 1);
  });
  all.work_in_rounds(
      endings(all), [this] { fill(); }, [this] { look(); });
  RecordProperty("routed", std::to_string(read_once(ip_packet)));
  RecordProperty("bridged", std::to_string(read_once(bridge_packet)));
  EXPECT_GT(read_once(ip_packet), 0U);
  EXPECT_GT(read_once(bridge_packet), 0U);
  unload_under(all);
  static_cast<void>(log.take());
}

}  // namespace
}  // namespace tarvelo::test
