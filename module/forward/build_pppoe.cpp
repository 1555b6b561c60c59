// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/build_pppoe.h"

#include "module/forward/frame.h"

namespace tarvelo {
namespace {

constexpr u8 version_1_type_1 = 0x11;
constexpr u8 session_data = 0x00;

}  // namespace

void build_pppoe(sk_buff* skb, u32 at, u16 sid, u16 protocol) {
  auto* header = header_at<wire::pppoe_hdr>(skb, at);
  header->version_type = version_1_type_1;
  header->code = session_data;
  header->sid = wire::be16::from_raw(sid);
  const u32 payload = skb->len - at - u32{offsetof(wire::pppoe_hdr, protocol)};
  header->length = wire::be16(static_cast<u16>(payload));
  header->protocol = wire::be16(protocol);
}

}  // namespace tarvelo
