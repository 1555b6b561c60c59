// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/connections.h"

#include <atomic>
#include <new>
#include <stdexcept>
#include <string>

#include "kernel/fast_path.h"
#include "kernel/jiffies.h"

namespace tarvelo::test {
namespace {

std::atomic<u32> destroyed_connections{0};

void report_and_free(nf_conntrack* nfct) {
  nf_conn* ct = nf_ct_of(nfct);
  nf_ct_set_status(ct, IPS_DYING);
  rcu_read_lock();
  if (vok_handle* handle = rcu_dereference(kcih)) {
    (void)handle->_ip_conntrack_ipct_delete(handle, ct);
    if (ct->vok_ext != nullptr) (void)handle->_vok_nf_conntrack_ext_free(ct);
  }
  rcu_read_unlock();
  nf_conntrack_free(ct);
  destroyed_connections.fetch_add(1, std::memory_order_relaxed);
}

/// The connections of these tests live as long as the test says; the timer is there to be moved.
void expired(unsigned long) {}

}  // namespace

nf_conntrack_tuple make_tuple(u8 protocol, endpoint source, endpoint destination,
                              ip_conntrack_dir dir) {
  nf_conntrack_tuple tuple{};
  tuple.src.u3.ip = ip4(source.address);
  tuple.src.u = wire::htons(source.port);
  tuple.src.l3num = NFPROTO_IPV4;
  tuple.dst.u3.ip = ip4(destination.address);
  tuple.dst.u = wire::htons(destination.port);
  tuple.dst.protonum = protocol;
  tuple.dst.dir = dir;
  return tuple;
}

tracked_connection::tracked_connection(const nf_conntrack_tuple& original,
                                       const nf_conntrack_tuple& reply)
    : ct_(nf_conntrack_alloc()) {
  if (ct_ == nullptr) throw std::bad_alloc();
  write_once(nf_ct_destroy, &report_and_free);
  ct_->tuple[IP_CT_DIR_ORIGINAL] = original;
  ct_->tuple[IP_CT_DIR_REPLY] = reply;
  ct_->tuple[IP_CT_DIR_REPLY].dst.dir = IP_CT_DIR_REPLY;
  nf_ct_set_status(ct_, IPS_CONFIRMED | IPS_SEEN_REPLY | IPS_ASSURED);
  ct_->tcp.state = TCP_CONNTRACK_ESTABLISHED;
  constexpr u32 lifetime = 600 * HZ;
  setup_timer(&ct_->timeout, &expired, 0);
  ct_->timeout.expires = jiffies + lifetime;
  add_timer(&ct_->timeout);
  if (vok_handle* handle = rcu_dereference(kcih)) {
    if (handle->_vok_nf_conntrack_ext_alloc(ct_) != 0) throw std::bad_alloc();
  }
}

tracked_connection::~tracked_connection() {
  if (ct_ != nullptr) drop();
}

void tracked_connection::attach(sk_buff* skb, ip_conntrack_info info) const {
  nf_conntrack_get(&ct_->ct_general);
  skb->nfct = &ct_->ct_general;
  skb->nfctinfo = info;
}

void tracked_connection::drop() {
  nf_conn* ct = ct_;
  ct_ = nullptr;
  del_timer_sync(&ct->timeout);
  nf_conntrack_put(&ct->ct_general);
}

u32 tracked_connection::destroyed() {
  return destroyed_connections.load(std::memory_order_relaxed);
}

scoped_route::scoped_route(std::string_view prefix, u8 length, std::string_view gateway,
                           net_device* dev, rt_class type)
    : prefix_(ip4(prefix)), length_(length) {
  if (ip_route_add(prefix_, length_, type, ip4(gateway), dev) != 0) {
    throw std::runtime_error("cannot add route " + std::string(prefix));
  }
}

scoped_route::~scoped_route() {
  ip_route_del(prefix_, length_);
}

scoped_neighbour::scoped_neighbour(std::string_view address, net_device* dev,
                                   std::string_view hardware_address, u8 state) {
  const u32 key = ip4(address);
  neigh_ = neigh_create(&arp_tbl, &key, dev);
  if (neigh_ == nullptr) throw std::bad_alloc();
  neigh_update(neigh_, mac_of(hardware_address).at, state);
}

scoped_neighbour::~scoped_neighbour() {
  neigh_remove(neigh_);
  neigh_release(neigh_);
}

}  // namespace tarvelo::test
