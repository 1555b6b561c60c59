// SPDX-License-Identifier: GPL-2.0-only
#include "module/proc/entries.h"

#include "module/ipv6/proc_files.h"
#include "module/proc/listings.h"
#include "module/proc/switches.h"

namespace tarvelo {
namespace {

constexpr std::uint16_t for_all = 0644;
constexpr std::uint16_t for_owner_and_group = 0440;

}  // namespace

constinit const vok_proc_entry vok_proc_entries[vok_proc_entry_count] = {
    {"enable", for_all, 0, &_vok_enable_file_ops},
    {"slow_xmit_enable", for_all, 0, &_vok_slow_xmit_enable_file_ops},
    {"statistics_info", for_all, 0, &_vko_statistics_info_file_ops},
    {"version", for_all, 0, &_vko_version_file_ops},
    {"ipc_count", for_all, 0, &_vko_ipc_count_file_ops},
    {"ipc_info", for_owner_and_group, 0, &_vok_ipc_file_ops},
    {"ipc_v6_count", for_all, 0, &_vko_ipc_v6_count_file_ops},
    {"ipc_v6_info", for_owner_and_group, 0, &_vko_ipc_v6_file_ops},
    {"statistics_forward_ipv6_packet_num", for_all, 0,
     &_vko_statistics_forward_ipv6_packet_num_file_ops},
    {"brc_info", for_owner_and_group, 0, &_vok_brc_file_ops},
};

}  // namespace tarvelo
