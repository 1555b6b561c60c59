// SPDX-License-Identifier: GPL-2.0-only
#include "ports/packet_socket.h"

#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kernel/wire/ethernet.h"

namespace tarvelo::ports {

namespace {

/// A burst must fit while the router does something else; a small buffer costs a fifth of the rate.
constexpr int socket_buffer_bytes = 16 * 1024 * 1024;
/// Behind a frame's buffer: the rest of the largest super-frame.
constexpr u32 overflow_bytes = 65536 + 256;
/// Bytes of a frame above the MTU: Ethernet header and two tags, one of them put back by us.
constexpr u32 link_header_room = wire::ethernet_length + 2 * wire::vlan_tag_length;
constexpr u32 least_room = 2048;

void set_option(int socket, int level, int option, int value, const std::string& interface,
                const char* what) {
  if (setsockopt(socket, level, option, &value, sizeof value) == 0) return;
  throw port_error("interface " + interface + ": " + what + ": " + std::strerror(errno) +
                   "; run on a kernel that has it");
}

/// The privileged form goes past the system's limit; without it the buffer is what one gets.
void enlarge_buffer(int socket, int privileged, int plain) {
  const int bytes = socket_buffer_bytes;
  if (setsockopt(socket, SOL_SOCKET, privileged, &bytes, sizeof bytes) == 0) return;
  (void)setsockopt(socket, SOL_SOCKET, plain, &bytes, sizeof bytes);
}

host_interface find_interface(const std::string& name, link_layer link, u32 mtu) {
  const auto found = query_interface(name);
  if (!found) {
    throw port_error("no interface " + name + " on this host; make it or name one that is there");
  }
  const bool fits =
      link == link_layer::ethernet ? found->type == ARPHRD_ETHER : found->type == ARPHRD_NONE;
  if (!fits) {
    throw port_error("interface " + name + " is not " +
                     (link == link_layer::ethernet
                          ? "an Ethernet interface"
                          : "a point-to-point interface without link layer") +
                     "; name another or give the device another type");
  }
  if (found->mtu < mtu) {
    throw port_error("interface " + name + " has an MTU of " + std::to_string(found->mtu) +
                     ", the device " + std::to_string(mtu) + "; raise the one or lower the other");
  }
  return *found;
}

owned_fd open_socket(const std::string& interface) {
  // Protocol 0 receives nothing until the bind: otherwise frames of other interfaces come first.
  owned_fd socket_fd{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  if (socket_fd) return socket_fd;
  if (errno == EPERM || errno == EACCES) {
    throw port_error("interface " + interface +
                     ": no privilege for packet sockets; run with CAP_NET_RAW (as root)");
  }
  throw port_error("interface " + interface + ": packet socket: " + std::strerror(errno) +
                   "; run on a kernel that has them");
}

}  // namespace

/// What recvmmsg() fills in. A frame's pieces: offload header, fresh buffer, overflow area.
struct packet_socket::receive_slots {
  static constexpr u32 pieces_of_frame = 3;

  struct control {
    alignas(cmsghdr) u8 bytes[CMSG_SPACE(sizeof(tpacket_auxdata))];
  };

  explicit receive_slots(u32 frame_room)
      : room(frame_room),
        overflow(new u8[std::size_t{batch_frames} * overflow_bytes]),
        scratch(new u8[std::size_t{frame_room} + wire::vlan_tag_length + overflow_bytes]) {}
  ~receive_slots() {
    for (sk_buff* skb : buffers)
      kfree_skb(skb);
  }

  u32 room;  ///< bytes of a buffer after its headroom
  std::array<sk_buff*, batch_frames> buffers{};
  std::array<offload_header, batch_frames> offloads{};
  std::array<control, batch_frames> controls{};
  std::array<iovec, std::size_t{pieces_of_frame} * batch_frames> pieces{};
  std::array<mmsghdr, batch_frames> messages{};
  std::unique_ptr<u8[]> overflow;  ///< touched by super-frames only
  std::unique_ptr<u8[]> scratch;   ///< a super-frame in one piece
};

/// One frame as it has come: its buffer holds the first `room` bytes of `length`.
struct packet_socket::arrival {
  sk_buff* skb;
  u32 length;
  offload_header offload;
  const msghdr* message;
  const u8* overflow;
};

packet_socket::packet_socket(const std::string& interface, link_layer link, u32 mtu)
    : interface_(interface), link_(link), host_mtu_(0) {
  const host_interface found = find_interface(interface, link, mtu);
  host_mtu_ = found.mtu;
  socket_ = open_socket(interface);
  set_up_socket(found.index);
  const u32 room = std::max(least_room, std::min(host_mtu_ + link_header_room, max_frame_length));
  slots_ = std::make_unique<receive_slots>(room);
}

packet_socket::~packet_socket() = default;

void packet_socket::set_up_socket(int index) {
  const int fd = socket_.get();
  set_option(fd, SOL_PACKET, PACKET_VNET_HDR, 1, interface_, "offload headers");
  set_option(fd, SOL_PACKET, PACKET_AUXDATA, 1, interface_, "tags beside frames");
  set_option(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, 1, interface_, "ignoring own frames");
  enlarge_buffer(fd, SO_RCVBUFFORCE, SO_RCVBUF);
  enlarge_buffer(fd, SO_SNDBUFFORCE, SO_SNDBUF);

  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = wire::htons(ETH_P_ALL);
  address.sll_ifindex = index;
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw port_error("interface " + interface_ + ": cannot be bound: " + std::strerror(errno) +
                     "; set it up first");
  }
  if (link_ != link_layer::ethernet) return;
  // The device has its own MAC address, and a bridge port takes frames for everybody.
  packet_mreq everything{};
  everything.mr_ifindex = index;
  everything.mr_type = PACKET_MR_PROMISC;
  if (setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &everything, sizeof everything) != 0) {
    throw port_error("interface " + interface_ + ": cannot be made to take all frames: " +
                     std::strerror(errno) + "; name another");
  }
}

u32 packet_socket::refill() noexcept {
  receive_slots& s = *slots_;
  u32 ready = 0;
  for (; ready < batch_frames; ++ready) {
    sk_buff*& skb = s.buffers[ready];
    if (skb == nullptr) skb = alloc_receive_buffer(s.room);
    if (skb == nullptr) break;
    iovec* pieces = &s.pieces[std::size_t{receive_slots::pieces_of_frame} * ready];
    pieces[0] = {&s.offloads[ready], sizeof(offload_header)};
    pieces[1] = {skb->data, s.room};
    pieces[2] = {&s.overflow[std::size_t{ready} * overflow_bytes], overflow_bytes};
    msghdr& message = s.messages[ready].msg_hdr;
    message = {};
    message.msg_iov = pieces;
    message.msg_iovlen = receive_slots::pieces_of_frame;
    message.msg_control = &s.controls[ready];
    message.msg_controllen = sizeof s.controls[ready];
  }
  return ready;
}

bool packet_socket::receive(std::vector<sk_buff*>& into) {
  const u32 ready = refill();
  if (ready == 0) {
    lose();
    return false;
  }
  receive_slots& s = *slots_;
  const int got = recvmmsg(socket_.get(), s.messages.data(), ready, MSG_DONTWAIT, nullptr);
  if (got < 0) {
    const bool nothing_there = errno == EAGAIN || errno == EINTR;
    if (!nothing_there) lose();  // a frame that the kernel could not describe, or the link went
    return !nothing_there;
  }
  for (u32 i = 0; i < static_cast<u32>(got); ++i) {
    const u32 bytes = s.messages[i].msg_len;
    const msghdr& message = s.messages[i].msg_hdr;
    if (bytes < sizeof(offload_header) || (message.msg_flags & MSG_TRUNC) != 0) {
      lose();
      continue;
    }
    arrival in{.skb = std::exchange(s.buffers[i], nullptr),
               .length = bytes - static_cast<u32>(sizeof(offload_header)),
               .offload = s.offloads[i],
               .message = &message,
               .overflow = &s.overflow[std::size_t{i} * overflow_bytes]};
    take(in, into);
  }
  return got > 0;
}

namespace {

/// The tag that the kernel has taken out of a frame, as it was on the wire.
struct stripped_tag {
  wire::be16 type;
  wire::be16 tci;
};
static_assert(sizeof(stripped_tag) == wire::vlan_tag_length);

bool find_stripped_tag(const msghdr& message, stripped_tag* tag) noexcept {
  auto* header = const_cast<msghdr*>(&message);
  for (cmsghdr* c = CMSG_FIRSTHDR(header); c != nullptr; c = CMSG_NXTHDR(header, c)) {
    if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA) continue;
    tpacket_auxdata aux{};
    std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
    if ((aux.tp_status & TP_STATUS_VLAN_VALID) == 0) return false;
    const bool has_type = (aux.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0;
    tag->type = wire::be16{has_type ? aux.tp_vlan_tpid : wire::ethertype::vlan};
    tag->tci = wire::be16{aux.tp_vlan_tci};
    return true;
  }
  return false;
}

void put_tag_back(sk_buff* skb, const stripped_tag& tag) noexcept {
  u8* start = skb_push(skb, wire::vlan_tag_length);
  std::memmove(start, start + wire::vlan_tag_length, std::size_t{2} * wire::mac_length);
  std::memcpy(start + std::size_t{2} * wire::mac_length, &tag, sizeof tag);
}

}  // namespace

void packet_socket::take(arrival& in, std::vector<sk_buff*>& into) noexcept {
  sk_buff* skb = in.skb;
  const u32 room = slots_->room;
  skb_put(skb, std::min(in.length, room));
  u32 beyond = in.length - skb->len;

  stripped_tag tag;
  if (link_ == link_layer::ethernet && skb->len >= wire::ethernet_length &&
      find_stripped_tag(*in.message, &tag)) {
    put_tag_back(skb, tag);
    in.offload = after_tag(in.offload);
  }
  const bool is_super_frame = in.offload.gso_type != offload_gso::none;
  if (beyond == 0 && !is_super_frame) {
    finish(skb, in.offload, into);
    return;
  }
  // Larger than the interface's own frames, or to be cut: in one piece first.
  u8* whole = slots_->scratch.get();
  std::memcpy(whole, skb->data, skb->len);
  std::memcpy(whole + skb->len, in.overflow, beyond);
  const std::span<const u8> frame{whole, std::size_t{skb->len} + beyond};
  kfree_skb(skb);
  if (is_super_frame) {
    cut(frame, in.offload, into);
    return;
  }
  skb = frame.size() <= max_frame_length ? alloc_receive_buffer(static_cast<u32>(frame.size()))
                                         : nullptr;
  if (skb == nullptr) {
    lose();
    return;
  }
  const auto length = static_cast<u32>(frame.size());
  std::memcpy(skb_put(skb, length), frame.data(), length);
  finish(skb, in.offload, into);
}

void packet_socket::finish(sk_buff* skb, const offload_header& offload,
                           std::vector<sk_buff*>& into) noexcept {
  if ((offload.flags & offload_flag::needs_csum) != 0 &&
      !complete_checksum({skb->data, skb->len}, offload)) {
    kfree_skb(skb);
    lose();
    return;
  }
  finish_received(skb, device(), link_);
  received_.fetch_add(1, std::memory_order_relaxed);
  into.push_back(skb);
}

void packet_socket::cut(std::span<const u8> frame, const offload_header& offload,
                        std::vector<sk_buff*>& into) noexcept {
  const auto plan = segmentation_plan::make(frame, offload, link_, host_mtu_);
  if (!plan) {
    lose();
    return;
  }
  for (u32 i = 0; i < plan->count(); ++i) {
    const u32 length = plan->length(i);
    sk_buff* skb = alloc_receive_buffer(length);
    if (skb == nullptr) {
      lose(plan->count() - i);
      return;
    }
    skb_put(skb, length);
    plan->write(frame, i, {skb->data, length});
    finish(skb, offload_header{}, into);
  }
}

void packet_socket::lose(u32 frames) noexcept {
  receive_errors_.fetch_add(frames, std::memory_order_relaxed);
}

void packet_socket::transmit(sk_buff* skb) noexcept {
  if (!transmit_[hosted::processor()].push(skb)) flush();
}

void packet_socket::flush() noexcept {
  transmit_queue& mine = transmit_[hosted::processor()];
  if (mine.empty()) return;
  const auto [sent, failed] = mine.flush(socket_.get());
  sent_.fetch_add(sent, std::memory_order_relaxed);
  transmit_errors_.fetch_add(failed, std::memory_order_relaxed);
}

}  // namespace tarvelo::ports
