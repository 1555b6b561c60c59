// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipv6/proc_files.h"

#include "kernel/spinlock.h"
#include "kernel/string.h"
#include "module/core/counters.h"
#include "module/forward/ether_text.h"
#include "module/ipv6/table.h"
#include "module/proc/listing.h"
#include "module/proc/single_value.h"
#include "module/proc/user_text.h"

namespace tarvelo {
namespace {

struct ipc_v6_table {
  using entry = ipc_v6_entry;
  static constexpr u32 bucket_count = ipc_v6_buckets;

  static ipc_v6_entry** heads(vok_handle* ci) { return ci->ipc_v6; }
  static void lock(vok_handle* ci) { spin_lock_bh(ci->ipc_v6_lock); }
  static void unlock(vok_handle* ci) { spin_unlock_bh(ci->ipc_v6_lock); }

  static void show_header(seq_file* m, vok_handle* ci) {
    seq_printf(m, "total ipcp: %d\n", _vok_ipc_v6_count_get(ci));
  }

  static void show_entry(seq_file* m, u32 line, const ipc_v6_entry& e) {
    char smac[ether_text_size] = {};
    char dmac[ether_text_size] = {};
    seq_printf(m,
               "%-7d%-5s %-3d sip=%-15pI6 dip=%-15pI6 sport=%-5d dport=%-5d sendif=%-8ssmac=%s "
               "dmac=%s \n",
               line, protocol_text(e.proto), e.proto, static_cast<const void*>(e.sip),
               static_cast<const void*>(e.dip), wire::ntohs(e.sport), wire::ntohs(e.dport),
               device_text(e.sendif), vok_ether_ntoa(e.smac, smac), vok_ether_ntoa(e.dmac, dmac));
  }
};

int _vok_proc_read_ipc_v6_count(seq_file* m, void*) {
  const rcu_read_side read_side;
  seq_printf(m, "%d\n", _vok_ipc_v6_count_get(published_handle()));
  return 0;
}

int _vok_proc_read_statistics_forward_ipv6_packet_num(seq_file* m, void*) {
  const unsigned long taken_up = read_once(ethernet_v6_packet);
  const unsigned long sent = read_once(ip_v6_packet);
  seq_printf(m, "ethernet_v6_packet=%lu, ip_v6_packet=%lu\n", taken_up, sent);
  return 0;
}

/// Takes keys of its own, not those that are printed: tools write this form.
ssize_type _vok_proc_write_statistics_forward_ipv6_packet_num(file*, const char* buffer,
                                                              std::size_t count, void*) {
  constexpr int parser_line = 677;
  const user_text written(buffer, count, "_vok_proc_write_statistics_forward_ipv6_packet_num",
                          parser_line);
  if (written.error() != 0) return written.error();
  unsigned long taken_up = 0;
  unsigned long sent = 0;
  if (sscanf(written.text(), "ethernet_packet=%lu,ip_v6_packet %lu", &taken_up, &sent) == 2) {
    write_once(ethernet_v6_packet, static_cast<u32>(taken_up));
    write_once(ip_v6_packet, static_cast<u32>(sent));
  }
  return static_cast<ssize_type>(count);
}

constexpr auto _vok_ipc_v6_count_single_open = single_value_open<_vok_proc_read_ipc_v6_count>;
constexpr auto _ct_ipc_v6_open = listing<ipc_v6_table>::open;
constexpr auto _vok_statistics_forward_ipv6_packet_num_single_open =
    single_value_open<_vok_proc_read_statistics_forward_ipv6_packet_num>;
constexpr auto _vok_proc_single_write_statistics_forward_ipv6_packet_num =
    single_value_write<_vok_proc_write_statistics_forward_ipv6_packet_num>;

}  // namespace

constinit const file_operations _vko_ipc_v6_count_file_ops =
    single_value_file(_vok_ipc_v6_count_single_open, read_only);
constinit const file_operations _vko_ipc_v6_file_ops = listing_file(_ct_ipc_v6_open);
constinit const file_operations _vko_statistics_forward_ipv6_packet_num_file_ops =
    single_value_file(_vok_statistics_forward_ipv6_packet_num_single_open,
                      _vok_proc_single_write_statistics_forward_ipv6_packet_num);

}  // namespace tarvelo
