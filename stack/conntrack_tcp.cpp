// SPDX-License-Identifier: GPL-2.0-only
#include "stack/conntrack_tcp.h"

#include "kernel/jiffies.h"
#include "tarvelo/ct_ext.h"

namespace tarvelo::stack {
namespace {

namespace flag = wire::tcp_flag;

enum segment_kind : u8 {
  segment_syn,
  segment_syn_ack,
  segment_fin,
  segment_ack,
  segment_rst,
  segment_kinds,
};

constexpr unsigned states = TCP_CONNTRACK_SYN_SENT2 + 1;

// Short names, so that the table can be read as one. The first five columns of a row are the way
// up, the next four the way down, the last is the simultaneous open.
constexpr u8 SS = TCP_CONNTRACK_SYN_SENT;
constexpr u8 SR = TCP_CONNTRACK_SYN_RECV;
constexpr u8 ES = TCP_CONNTRACK_ESTABLISHED;
constexpr u8 FW = TCP_CONNTRACK_FIN_WAIT;
constexpr u8 CW = TCP_CONNTRACK_CLOSE_WAIT;
constexpr u8 LA = TCP_CONNTRACK_LAST_ACK;
constexpr u8 TW = TCP_CONNTRACK_TIME_WAIT;
constexpr u8 CL = TCP_CONNTRACK_CLOSE;
constexpr u8 S2 = TCP_CONNTRACK_SYN_SENT2;
constexpr u8 ok = 0x40;  ///< pass without effect
constexpr u8 no = 0x41;  ///< reject
constexpr u8 re = 0x42;  ///< reopen

// clang-format off
constexpr u8 transitions[2][segment_kinds][states] = {
  { // from the side that began the connection
    //            none  SS  SR  ES  FW  CW  LA  TW  CL  S2
    /* SYN     */ { no, SS, ok, ok, ok, ok, ok, re, re, S2 },
    /* SYN+ACK */ { no, no, SR, ok, no, no, no, no, no, SR },
    /* FIN     */ { no, no, FW, FW, LA, LA, LA, TW, ok, no },
    /* ACK     */ { no, no, ES, ES, CW, CW, TW, TW, ok, no },
    /* RST     */ { no, CL, CL, CL, CL, CL, CL, CL, ok, CL },
  },
  { // from the other side
    //            none  SS  SR  ES  FW  CW  LA  TW  CL  S2
    /* SYN     */ { no, S2, no, no, no, no, no, re, re, S2 },
    /* SYN+ACK */ { no, SR, SR, ok, ok, ok, ok, ok, ok, SR },
    /* FIN     */ { no, no, FW, FW, LA, LA, LA, TW, ok, no },
    // In SYN_SENT: the other side still holds half of an earlier connection and says so.
    /* ACK     */ { no, ok, SR, ES, CW, CW, TW, TW, ok, ok },
    /* RST     */ { no, CL, CL, CL, CL, CL, CL, CL, ok, CL },
  },
};
// clang-format on

/// The largest window that can be announced: 65535 scaled by 2^14 (RFC 7323).
constexpr u32 window_max = 65535U << 14;

constexpr u32 picked_up_timeout = 300 * HZ;

[[nodiscard]] segment_kind kind_of(u8 flags) noexcept {
  if ((flags & flag::rst) != 0) return segment_rst;
  if ((flags & flag::syn) != 0) return (flags & flag::ack) != 0 ? segment_syn_ack : segment_syn;
  return (flags & flag::fin) != 0 ? segment_fin : segment_ack;
}

[[nodiscard]] bool ever_accelerated(const nf_conn* ct) noexcept {
  return ct->vok_ext != nullptr && (ct->vok_ext->flags & ct_ext_flag::ever_added) != 0;
}

[[nodiscard]] bool rst_plausible(const connection& c, ip_conntrack_dir dir,
                                 const wire::tcphdr& tcp) noexcept {
  const tcp_side& receiver = c.tcp[other(dir)];
  if (c.ct->tcp.state == TCP_CONNTRACK_SYN_SENT) {
    if (dir == IP_CT_DIR_ORIGINAL) return true;
    return (tcp.flags & flag::ack) != 0 && receiver.has_syn &&
           tcp.ack_seq.host() == receiver.syn_end;
  }
  if (ever_accelerated(c.ct) || !receiver.has_acknowledged) return true;
  return tcp.seq.host() - receiver.acknowledged <= window_max;
}

void remember_segment(tcp_side& sender, const wire::tcphdr& tcp) noexcept {
  if ((tcp.flags & flag::syn) != 0) {
    sender.syn_end = tcp.seq.host() + 1;
    sender.has_syn = true;
  }
  if ((tcp.flags & flag::ack) == 0) return;
  const u32 acknowledged = tcp.ack_seq.host();
  if (!sender.has_acknowledged || static_cast<s32>(acknowledged - sender.acknowledged) > 0) {
    sender.acknowledged = acknowledged;
    sender.has_acknowledged = true;
  }
}

/// After its own FIN a side only repeats itself or acknowledges the other's data.
[[nodiscard]] bool waits_for_other_side(const nf_conn* ct, ip_conntrack_dir dir,
                                        segment_kind kind) noexcept {
  const bool closing =
      ct->tcp.state == TCP_CONNTRACK_FIN_WAIT || ct->tcp.state == TCP_CONNTRACK_CLOSE_WAIT;
  const bool has_closed = (ct->tcp.closing & (1U << dir)) != 0;
  return closing && has_closed && (kind == segment_fin || kind == segment_ack);
}

void enter_state(nf_conn* ct, ip_conntrack_dir dir, segment_kind kind, u8 next) noexcept {
  if (kind == segment_fin) ct->tcp.closing = static_cast<u8>(ct->tcp.closing | 1U << dir);
  if (next == ES && (ct->status & IPS_SEEN_REPLY) != 0) nf_ct_set_status(ct, IPS_ASSURED);
  write_once(ct->tcp.state, next);
}

}  // namespace

bool tcp_can_begin(const tracked_packet& packet) noexcept {
  return tcp_is_syn(packet.tcp().flags) || tcp_is_plain_ack(packet.tcp().flags);
}

void tcp_begin(connection& c, const tracked_packet& packet) noexcept {
  const wire::tcphdr& tcp = packet.tcp();
  c.picked_up = !tcp_is_syn(tcp.flags);
  write_once(c.ct->tcp.state, c.picked_up ? ES : SS);
  c.ct->tcp.last_flags[IP_CT_DIR_ORIGINAL] = tcp.flags;
  remember_segment(c.tcp[IP_CT_DIR_ORIGINAL], tcp);
}

tcp_outcome tcp_follow(connection& c, ip_conntrack_dir dir, const tracked_packet& packet) noexcept {
  const wire::tcphdr& tcp = packet.tcp();
  const segment_kind kind = kind_of(tcp.flags);
  if (kind == segment_rst && !rst_plausible(c, dir, tcp)) return tcp_outcome::reject;
  if (waits_for_other_side(c.ct, dir, kind)) {
    remember_segment(c.tcp[dir], tcp);
    return tcp_outcome::follow;
  }
  const u8 next = transitions[dir][kind][c.ct->tcp.state];
  if (next == no) return tcp_outcome::reject;
  if (next == re) return tcp_outcome::reopen;
  c.ct->tcp.last_flags[dir] = tcp.flags;
  if (next == ok) return tcp_outcome::pass;
  remember_segment(c.tcp[dir], tcp);
  enter_state(c.ct, dir, kind, next);
  return tcp_outcome::follow;
}

bool tcp_asks_for_end(const tracked_packet& packet) noexcept {
  if (packet.protocol() != wire::ip_protocol::tcp) return false;
  if (packet.span.transport_bytes() <= offsetof(wire::tcphdr, flags)) return false;
  const u8 flags = packet.tcp().flags;
  return (flags & (flag::fin | flag::rst)) != 0 && (flags & flag::syn) == 0;
}

u32 tcp_timeout(const nf_conn* ct) noexcept {
  static constexpr u32 seconds[states] = {
      // none  SS   SR  ES   FW   CW  LA   TW  CL   S2
      10, 120, 60, 0, 120, 60, 30, 120, 10, 120,
  };
  if (ct->tcp.state != TCP_CONNTRACK_ESTABLISHED) return seconds[ct->tcp.state] * HZ;
  // Nobody has confirmed a connection that was only heard from one side.
  if ((ct->status & IPS_SEEN_REPLY) == 0) return picked_up_timeout;
  return nf_ct_established_timeout(wire::ip_protocol::tcp);
}

}  // namespace tarvelo::stack
