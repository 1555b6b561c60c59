// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/ppp_sides.h"

namespace tarvelo {
namespace {

/// False when the device should have a channel and has none.
[[nodiscard]] bool ask_channel(net_device* dev, ppp_conn_info* info) {
  info->type = static_cast<u8>(ppp_channel_type::none);
  return (read_once(dev->flags) & IFF_POINTOPOINT) == 0 || ppp_get_conn_pkt_info(dev, info) == 0;
}

}  // namespace

ppp_sides ppp_sides_of(net_device* input, net_device* output) {
  ppp_sides sides = {input, output, {}, {}, ppp_code::plain_to_plain};
  if (ask_channel(output, &sides.out) && ask_channel(input, &sides.in)) {
    sides.code = static_cast<u16>(sides.in.type << 8 | sides.out.type);
  }
  return sides;
}

}  // namespace tarvelo
