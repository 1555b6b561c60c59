// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/remove.h"

#include "kernel/ppp_channel.h"
#include "kernel/printk.h"
#include "kernel/wire/ip.h"
#include "module/ipc/table.h"
#include "module/ipv6/table.h"

namespace tarvelo {
namespace {

/// Both directions; not each was ever added, so that nothing is found is normal.
template <typename Connections>
void forget_connection(vok_handle* ci, const nf_conn* ct) {
  for (const nf_conntrack_tuple& tuple : ct->tuple)
    connection_table<Connections>::cut_off(ci, Connections::key_of(tuple));
}

/// A PPPoE session that is re-labelled on its way through has a second device, which only the
/// connection's record knows.
template <typename Entry>
[[nodiscard]] bool relabels_session_of(const Entry& entry, const net_device* dev) {
  if ((entry.flags & ipc_flag::pppoe_in_out) == 0) return false;
  if (entry.ct == nullptr || entry.ct->vok_ext == nullptr) return false;
  return read_once(entry.ct->vok_ext->dev) == dev;
}

/// The parameters of the channel of a PPP interface; null for other devices.
[[nodiscard]] const void* channel_of(net_device* dev) {
  ppp_conn_info info = {};
  return ppp_get_conn_pkt_info(dev, &info) == 0 ? ppp_channel_params(info.chan) : nullptr;
}

/// An entry that has a PPPoE side besides its tunnel does not name the tunnel's interface; but it
/// points into that interface's channel, which it must not outlive.
template <typename Entry>
[[nodiscard]] bool uses_channel(const Entry& entry, const void* channel) {
  if constexpr (requires { entry.session; }) return channel != nullptr && entry.session == channel;
  return false;
}

template <typename Connections>
void sweep_device(vok_handle* ci, net_device* dev) {
  using entry = typename Connections::entry;
  const void* channel = channel_of(dev);
  connection_table<Connections>::remove_matching(ci, [dev, channel](const entry& candidate) {
    return candidate.sendif == dev || (candidate.ppp_dev != nullptr && candidate.ppp_dev == dev) ||
           relabels_session_of(candidate, dev) || uses_channel(candidate, channel);
  });
}

}  // namespace

int _ip_conntrack_ipct_delete(vok_handle* ci, nf_conn* ct) {
  if (ci == nullptr || ct->vok_ext == nullptr) return 0;
  if ((read_once(ct->vok_ext->flags) & ct_ext_flag::ever_added) == 0) return 0;
  const nf_conntrack_tuple& original = ct->tuple[IP_CT_DIR_ORIGINAL];
  const u8 proto = original.dst.protonum;
  if (proto != wire::ip_protocol::tcp && proto != wire::ip_protocol::udp) return 0;
  if (original.src.l3num == NFPROTO_IPV4) {
    forget_connection<ipv4_connections>(ci, ct);
  } else if (original.src.l3num == NFPROTO_IPV6) {
    forget_connection<ipv6_connections>(ci, ct);
  }
  return 0;
}

int _vok_ipc_delete_by_dev(vok_handle* ci, net_device* dev) {
  if (ci == nullptr) {
    printk("%s: Invalid input (ci %p)", "_vok_ipc_delete_by_dev", static_cast<void*>(ci));
    return -1;
  }
  sweep_device<ipv4_connections>(ci, dev);
  sweep_device<ipv6_connections>(ci, dev);
  return 0;
}

void session_delete_ipc(vok_handle* ci, l2tp_session* session) {
  if (ci == nullptr) return;
  remove_matching(ci, [session](const ipc_entry& entry) {
    if ((entry.flags & (ipc_flag::l2tp_out | ipc_flag::l2tp_in)) == 0) return false;
    return read_once(static_cast<const l2tp_params*>(entry.session)->l2tp_session) == session;
  });
}

void switch_fast_path(vok_handle* ci, u8 enable) {
  write_once(ci->enable, enable);
  if (enable == 0) return;
  ipv4_table::remove_orphans(ci);
  ipv6_table::remove_orphans(ci);
}

}  // namespace tarvelo
