// SPDX-License-Identifier: GPL-2.0-only
#include "module/proc/switches.h"

#include "kernel/errno.h"
#include "kernel/string.h"
#include "module/core/counters.h"
#include "module/core/handle.h"
#include "module/ipc/remove.h"
#include "module/ipc/table.h"
#include "module/proc/single_value.h"
#include "module/proc/user_text.h"

namespace tarvelo {
namespace {

constexpr const char* version_text = "2.0-6846";

[[nodiscard]] ssize_type consumed_whole(std::size_t count) {
  return static_cast<ssize_type>(count);
}

int _vok_proc_read_enable(seq_file* m, void*) {
  const rcu_read_side read_side;
  const vok_handle* ci = published_handle();
  if (ci != nullptr) seq_printf(m, "%d:\n", int{read_once(ci->enable)});
  return 0;
}

ssize_type _vok_proc_write_enable(file*, const char* buffer, std::size_t count, void*) {
  const user_text written(buffer, count, "_vok_proc_write_enable", __LINE__);
  if (written.error() != 0) return written.error();
  const rcu_read_side read_side;
  vok_handle* ci = published_handle();
  if (ci == nullptr) return -ENODEV;
  int value = 0;
  if (sscanf(written.text(), "%d", &value) == 1) switch_fast_path(ci, static_cast<u8>(value));
  return consumed_whole(count);
}

int _vok_proc_read_slow_xmit_enable(seq_file* m, void*) {
  seq_printf(m, "%d:\n", read_once(g_vok_slow_xmit_enable));
  return 0;
}

ssize_type _vok_proc_write_slow_xmit_enable(file*, const char* buffer, std::size_t count, void*) {
  const user_text written(buffer, count, "_vok_proc_write_slow_xmit_enable", __LINE__);
  if (written.error() != 0) return written.error();
  int value = 0;
  if (sscanf(written.text(), "%d", &value) == 1) write_once(g_vok_slow_xmit_enable, s32{value});
  return consumed_whole(count);
}

#define STATISTICS_FORMAT \
  "ethernet_packet=%lu,bridge_packet=%lu,bridge_pool_packet=%lu,ip_packet=%lu,ip_pool_packet=%lu"

/// Counters as they are printed and scanned.
[[nodiscard]] unsigned long shown(const u32& counter) {
  return read_once(counter);
}

int _vok_proc_read_statistics_info(seq_file* m, void*) {
  seq_printf(m, STATISTICS_FORMAT "\n", shown(ethernet_packet), shown(bridge_packet),
             shown(bridge_pool_packet), shown(ip_packet), shown(ip_pool_packet));
  return 0;
}

ssize_type _vok_proc_write_statistics_info(file*, const char* buffer, std::size_t count, void*) {
  const user_text written(buffer, count, "_vok_proc_write_statistics_info", __LINE__);
  if (written.error() != 0) return written.error();
  unsigned long value[5] = {};
  const int converted = sscanf(written.text(), STATISTICS_FORMAT, &value[0], &value[1], &value[2],
                               &value[3], &value[4]);
  if (converted == 5) {
    u32* const counters[] = {&ethernet_packet, &bridge_packet, &bridge_pool_packet, &ip_packet,
                             &ip_pool_packet};
    for (int i = 0; i < 5; ++i)
      write_once(*counters[i], static_cast<u32>(value[i]));
  }
  return consumed_whole(count);
}

int _vok_proc_read_version(seq_file* m, void*) {
  seq_printf(m, "tarvelo version: %s, build date: %s %s\n", version_text, __DATE__, __TIME__);
  return 0;
}

int _vok_proc_read_ipc_count(seq_file* m, void*) {
  const rcu_read_side read_side;
  seq_printf(m, "%d\n", _vok_ipc_count_get(published_handle()));
  return 0;
}

constexpr auto _vok_enable_single_open = single_value_open<_vok_proc_read_enable>;
constexpr auto _vok_slow_xmit_enable_single_open =
    single_value_open<_vok_proc_read_slow_xmit_enable>;
constexpr auto _vok_statistics_info_single_open = single_value_open<_vok_proc_read_statistics_info>;
constexpr auto _vok_version_single_open = single_value_open<_vok_proc_read_version>;
constexpr auto _vok_ipc_count_single_open = single_value_open<_vok_proc_read_ipc_count>;

constexpr auto _vok_proc_single_write_enable = single_value_write<_vok_proc_write_enable>;
constexpr auto _vok_proc_single_write_slow_xmit_enable =
    single_value_write<_vok_proc_write_slow_xmit_enable>;
constexpr auto _vok_proc_single_write_statistics_info =
    single_value_write<_vok_proc_write_statistics_info>;

}  // namespace

constinit const file_operations _vok_enable_file_ops =
    single_value_file(_vok_enable_single_open, _vok_proc_single_write_enable);
constinit const file_operations _vok_slow_xmit_enable_file_ops =
    single_value_file(_vok_slow_xmit_enable_single_open, _vok_proc_single_write_slow_xmit_enable);
constinit const file_operations _vko_statistics_info_file_ops =
    single_value_file(_vok_statistics_info_single_open, _vok_proc_single_write_statistics_info);
constinit const file_operations _vko_version_file_ops =
    single_value_file(_vok_version_single_open, read_only);
constinit const file_operations _vko_ipc_count_file_ops =
    single_value_file(_vok_ipc_count_single_open, read_only);

}  // namespace tarvelo
