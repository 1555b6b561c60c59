// SPDX-License-Identifier: GPL-2.0-only
#include "stack/bridge.h"

#include "kernel/errno.h"
#include "stack/bridge_output.h"
#include "stack/ethernet_frame.h"
#include "stack/fast_path_devices.h"
#include "stack/link_state.h"
#include "stack/stack_core.h"
#include "stack/stack_lock.h"

namespace tarvelo::stack {

namespace {

constexpr u8 no_mac[wire::mac_length] = {};

/// 01:80:C2:00:00:00 to 0F are never passed on by a bridge (802.1Q, table 8-1).
bool is_link_local_group(const u8* mac) noexcept {
  constexpr u8 block[] = {0x01, 0x80, 0xC2, 0x00, 0x00};
  return std::memcmp(mac, block, sizeof block) == 0 && (mac[5] & 0xF0) == 0;
}

bool is_forwarding(const net_bridge_port* port) noexcept {
  return read_once(port->state) == BR_STATE_FORWARDING;
}

/// The entry of a host behind that very port; null when it is not known there.
net_bridge_fdb_entry* host_behind(const net_bridge_port* port, const u8* mac) noexcept {
  net_bridge_fdb_entry* entry = br_fdb_find(port->br, mac);
  if (entry == nullptr || entry->is_local) return nullptr;
  return rcu_dereference(entry->dst) == port ? entry : nullptr;
}

/// A port that the module may send a frame to which came in on `from`.
bool is_known_way(const net_bridge_fdb_entry* host, const net_bridge_port* from) noexcept {
  if (host == nullptr || host->is_local) return false;
  const net_bridge_port* port = rcu_dereference(host->dst);
  return port != from && is_forwarding(port) && fast_path_knows_port(port);
}

br_fdb_fate judge_age(net_bridge_fdb_entry* entry, void*) {
  u32 seen = 0;
  // Never later than now: the clock stands still while a timer runs.
  if (fast_path_host_seen(entry, &seen) && time_within(jiffies, seen, bridge_ageing_time)) {
    write_once(entry->updated, seen);
    return br_fdb_fate::keep;
  }
  fast_path_host_gone(entry);
  return br_fdb_fate::remove;
}

br_fdb_fate remove_behind(net_bridge_fdb_entry* entry, void* port) {
  if (entry->is_local || entry->dst != port) return br_fdb_fate::keep;
  fast_path_host_gone(entry);
  return br_fdb_fate::remove;
}

br_fdb_fate remove_host(net_bridge_fdb_entry* entry, void*) {
  if (entry->is_local) return br_fdb_fate::keep;
  fast_path_host_gone(entry);
  return br_fdb_fate::remove;
}

br_fdb_fate report_host(net_bridge_fdb_entry* entry, void*) {
  fast_path_host_learnt(entry);
  return br_fdb_fate::keep;
}

br_fdb_fate report_host_as_new(net_bridge_fdb_entry* entry, void*) {
  if (entry->is_local) return br_fdb_fate::keep;
  fast_path_host_gone(entry);
  fast_path_host_learnt(entry);
  return br_fdb_fate::keep;
}

/// Several devices of a bridge may share one address.
bool insert_local(net_bridge* br, net_bridge_port* port, const u8* mac) noexcept {
  const int error = br_fdb_insert_local(br, port, mac);
  return error == 0 || error == -EEXIST;
}

}  // namespace

bridge::bridge(net_device* dev, u32 host_limit) : br_(br_alloc(dev, host_limit)) {
  if (br_ == nullptr) {
    throw setup_error(std::string("device \"") + dev->name + "\": no memory for the bridge");
  }
  dev->flags |= IFF_BROADCAST;
  dev->netdev_ops = bridge_device_ops();
  dev->priv = br_;
  setup_timer(&ageing_, age, reinterpret_cast<unsigned long>(this));
}

bridge::~bridge() {
  {
    const stack_guard guard;
    br_fdb_sweep(br_, remove_host, nullptr);
  }
  // With no host left, a timer function that is just running does not start it again.
  del_timer_sync(&ageing_);
  br_free(br_);
}

net_bridge_port* bridge::add_port(net_device* dev) {
  net_bridge_port* port = br_port_add(br_, dev);
  if (port == nullptr || insert_local(br_, port, dev->dev_addr)) return port;
  br_port_del(port);
  return nullptr;
}

bool bridge::add_own_address() {
  return insert_local(br_, nullptr, br_->dev->dev_addr);
}

bridge_decision bridge::input(sk_buff* skb, net_bridge_port* port) {
  const wire::ethhdr* eth = ethernet_header(skb);
  if (!learn(port, eth->h_source) || !is_forwarding(port)) return bridge_decision::dropped;
  if (is_link_local_group(eth->h_dest)) return bridge_decision::dropped;
  if (is_group_mac(eth->h_dest)) {
    return bridge_flood(skb, br_, port) ? bridge_decision::flooded : bridge_decision::up;
  }
  if (is_for_bridge(eth->h_dest, port)) return bridge_decision::up;
  return bridge_send(skb, br_, port) ? bridge_decision::forwarded : bridge_decision::dropped;
}

/// False for a frame that no host has sent: from no address, or from one of the bridge's own, which
/// has gone round in a loop.
bool bridge::learn(net_bridge_port* port, const u8* sender) {
  if (same_mac(sender, no_mac)) return false;
  const br_fdb_update_result seen = br_fdb_update(port, sender);
  switch (seen.outcome) {
    case br_fdb_outcome::refreshed:
    case br_fdb_outcome::refused:
      return true;
    case br_fdb_outcome::own:
      return false;
    case br_fdb_outcome::learnt:
      fast_path_host_learnt(seen.entry);
      start_ageing();
      return true;
    case br_fdb_outcome::moved:
      fast_path_host_moved(seen.entry);
      hosts_have_gone(1);
      return true;
  }
  return true;
}

void bridge::forget_port(net_bridge_port* port) {
  hosts_have_gone(br_fdb_sweep(br_, remove_behind, port));
}

void bridge::report_all() {
  br_fdb_sweep(br_, report_host, nullptr);
}

void bridge::hosts_have_gone(u32 count) {
  if (count != 0) path_has_changed(br_->dev);
}

void bridge::start_ageing() {
  if (!timer_pending(&ageing_)) mod_timer(&ageing_, jiffies + bridge_ageing_step);
}

void bridge::age(unsigned long self) {
  const stack_guard guard;
  auto* aged = reinterpret_cast<bridge*>(self);
  aged->hosts_have_gone(br_fdb_age(aged->br_, bridge_ageing_time, judge_age, nullptr));
  if (!time_within(jiffies, aged->renewed_, bridge_renewal_time)) aged->renew_reports();
  if (aged->knows_hosts()) aged->start_ageing();
}

/// What has been cached of the hosts is older than them now, so it goes and comes again as well.
void bridge::renew_reports() {
  renewed_ = jiffies;
  br_fdb_sweep(br_, report_host_as_new, nullptr);
  path_has_changed(br_->dev);
}

bool is_for_bridge(const u8* mac, const net_bridge_port* port) noexcept {
  return same_mac(mac, port->br->dev->dev_addr) || same_mac(mac, port->dev->dev_addr);
}

bool bridge_may_offer(const sk_buff* skb, const net_bridge_port* port, bool foreign_tag) noexcept {
  const wire::ethhdr* eth = ethernet_header(skb);
  net_bridge_fdb_entry* sender = host_behind(port, eth->h_source);
  if (sender == nullptr || !is_forwarding(port)) return false;
  if (is_for_bridge(eth->h_dest, port)) {
    // The module does not note the senders of what it routes. One store for each tick, not frame.
    const u32 now = jiffies;
    if (read_once(sender->updated) != now) write_once(sender->updated, now);
    return true;
  }
  if (foreign_tag || !fast_path_knows_port(port)) return false;
  return is_known_way(br_fdb_find(port->br, eth->h_dest), port);
}

}  // namespace tarvelo::stack
