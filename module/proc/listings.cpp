// SPDX-License-Identifier: GPL-2.0-only
#include "module/proc/listings.h"

#include "module/brc/table.h"
#include "module/forward/ether_text.h"
#include "module/ipc/table.h"
#include "module/proc/listing.h"

namespace tarvelo {
namespace {

[[nodiscard]] const char* translation_text(u32 flags) {
  if ((flags & ipc_flag::dnat) != 0) return "DNAT";
  return (flags & ipc_flag::snat) != 0 ? "SNAT" : "undef";
}

/// The modes are told by bit, so that a value which is no mode still shows what it is nearest to.
[[nodiscard]] const char* tag_mode_text(u8 mode) {
  if ((mode & static_cast<u8>(tag_mode::tag)) != 0) return "TAG";
  return (mode & static_cast<u8>(tag_mode::untag)) != 0 ? "UNTAG" : "undef";
}

struct ipc_table {
  using entry = ipc_entry;
  static constexpr u32 bucket_count = ipc_buckets;

  static ipc_entry** heads(vok_handle* ci) { return ci->ipc; }
  static void lock(vok_handle* ci) { spin_lock_bh(ci->ipc_lock); }
  static void unlock(vok_handle* ci) { spin_unlock_bh(ci->ipc_lock); }

  static void show_header(seq_file* m, vok_handle* ci) {
    seq_printf(m, "total ipcp: %d\n", _vok_ipc_count_get(ci));
  }

  static void show_entry(seq_file* m, u32 line, const ipc_entry& e) {
    char smac[ether_text_size] = {};
    char dmac[ether_text_size] = {};
    seq_printf(m,
               "%-7d%-5s %-3d sip=%-15pI4 dip=%-15pI4 sport=%-5d dport=%-5d sendif=%-8s %-5s "
               "natip=%-15pI4 natp=%-5d smac=%s dmac=%s \n",
               line, protocol_text(e.proto), e.proto, static_cast<const void*>(&e.sip),
               static_cast<const void*>(&e.dip), wire::ntohs(e.sport), wire::ntohs(e.dport),
               device_text(e.sendif), translation_text(e.flags), static_cast<const void*>(&e.natip),
               wire::ntohs(e.natp), vok_ether_ntoa(e.smac, smac), vok_ether_ntoa(e.dmac, dmac));
  }
};

struct brc_table {
  using entry = ::brc;
  static constexpr u32 bucket_count = brc_buckets;

  static ::brc** heads(vok_handle* ci) { return ci->brc; }
  static void lock(vok_handle*) { read_lock_bh(&brc_lock); }
  static void unlock(vok_handle*) { read_unlock_bh(&brc_lock); }

  static void show_header(seq_file*, vok_handle*) {}

  static void show_entry(seq_file* m, u32 line, const ::brc& e) {
    char dmac[ether_text_size] = {};
    seq_printf(m, "%-7d dmac=%s sendif=%-8s bridgeID=%-2d VLANID=%-5d %-5s\n", line,
               vok_ether_ntoa(e.dmac, dmac), device_text(e.sendif), e.bridgeID, e.VLANID,
               tag_mode_text(e.tag_mode));
  }
};

constexpr auto _ct_ipc_open = listing<ipc_table>::open;
constexpr auto _ct_brc_open = listing<brc_table>::open;

}  // namespace

constinit const file_operations _vok_ipc_file_ops = listing_file(_ct_ipc_open);
constinit const file_operations _vok_brc_file_ops = listing_file(_ct_brc_open);

}  // namespace tarvelo
