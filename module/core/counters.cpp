// SPDX-License-Identifier: GPL-2.0-only
#include "module/core/counters.h"

namespace tarvelo {

constinit u32 ethernet_packet = 0;
constinit u32 bridge_packet = 0;
constinit u32 bridge_pool_packet = 0;
constinit u32 ip_packet = 0;
constinit u32 ip_pool_packet = 0;
constinit u32 ethernet_v6_packet = 0;
constinit u32 ip_v6_packet = 0;
constinit s32 g_vok_slow_xmit_enable = 0;

void reset_counters() {
  u32* const counters[] = {&ethernet_packet, &bridge_packet,      &bridge_pool_packet, &ip_packet,
                           &ip_pool_packet,  &ethernet_v6_packet, &ip_v6_packet};
  for (u32* counter : counters)
    write_once(*counter, u32{0});
  write_once(g_vok_slow_xmit_enable, s32{0});
}

}  // namespace tarvelo
