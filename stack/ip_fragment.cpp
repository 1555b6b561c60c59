// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ip_fragment.h"

#include <algorithm>
#include <cstring>

#include "stack/ip_packet.h"

namespace tarvelo::stack {

namespace {

namespace ip_option {
constexpr u8 end = 0;
constexpr u8 no_operation = 1;
constexpr u8 copied = 0x80;  ///< the option belongs into every fragment
}  // namespace ip_option

void free_all(sk_buff* chain) noexcept {
  while (chain != nullptr) {
    sk_buff* next = chain->next;
    kfree_skb(chain);
    chain = next;
  }
}

/// Overwrites the options that belong into the first fragment only. Malformed options stay as they
/// are from the first fault on: the router does not judge them.
void blank_uncopied_options(u8* option, const u8* options_end) noexcept {
  while (option < options_end && *option != ip_option::end) {
    if (*option == ip_option::no_operation) {
      ++option;
      continue;
    }
    if (options_end - option < 2 || option[1] < 2 || option[1] > options_end - option) return;
    const u8 length = option[1];
    if ((*option & ip_option::copied) == 0) std::memset(option, ip_option::no_operation, length);
    option += length;
  }
}

/// One fragment: the packet's header, then `length` bytes of its data from `offset`.
sk_buff* make_fragment(const sk_buff* skb, u32 offset, u32 length) noexcept {
  const u32 header_length = ip_header(skb)->header_length();
  sk_buff* fragment = alloc_packet(header_length + length);
  if (fragment == nullptr) return nullptr;

  std::memcpy(skb_put(fragment, header_length), skb->data, header_length);
  std::memcpy(skb_put(fragment, length), skb->data + header_length + offset, length);
  fragment->dev = skb->dev;
  fragment->rx_dev = skb->rx_dev;
  fragment->priority = skb->priority;
  if (skb->nfct != nullptr) {
    nf_conntrack_get(skb->nfct);
    fragment->nfct = skb->nfct;
    fragment->nfctinfo = skb->nfctinfo;
  }
  mark_ip_packet(fragment);

  wire::iphdr* ip = ip_header(fragment);
  u8* options = fragment->data + wire::ipv4_min_length;
  if (offset != 0) blank_uncopied_options(options, fragment->data + header_length);
  const bool more = header_length + offset + length < skb->len;
  const u32 field = offset / fragment_unit | (more ? wire::ip_frag::more_fragments : 0U);
  ip->frag_off = wire::be16(static_cast<u16>(field));
  ip->tot_len = wire::be16(static_cast<u16>(fragment->len));
  ip_send_check(ip);
  return fragment;
}

}  // namespace

sk_buff* fragment_packet(sk_buff* skb, u32 mtu) {
  const wire::iphdr* ip = ip_header(skb);
  const u32 header_length = ip->header_length();
  const bool may_cut = (ip->frag_off.host() & wire::ip_frag::dont_fragment) == 0;
  if (!may_cut || mtu < header_length + fragment_unit) {
    kfree_skb(skb);
    return nullptr;
  }

  const u32 step = (mtu - header_length) / fragment_unit * fragment_unit;
  const u32 total = skb->len - header_length;
  sk_buff* first = nullptr;
  sk_buff** tail = &first;
  for (u32 offset = 0; offset < total; offset += step) {
    *tail = make_fragment(skb, offset, std::min(step, total - offset));
    if (*tail == nullptr) {
      free_all(first);
      first = nullptr;
      break;
    }
    tail = &(*tail)->next;
  }
  kfree_skb(skb);
  return first;
}

}  // namespace tarvelo::stack
