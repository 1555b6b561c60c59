// SPDX-License-Identifier: GPL-2.0-only
//
// The module's scene with PPP on either side of the router: for each kind of channel an interface
// towards the inside, below which is `lan`, and one towards the upstream, below which is `wan` or
// the VLAN device `wan.7` on it. One source-translated connection goes from any side to any other.
#pragma once

#include <memory>
#include <optional>

#include "kernel/if_vlan.h"
#include "kernel/ppp_channel.h"
#include "module/ipc/table.h"
#include "tests/module/module_scene.h"

namespace tarvelo::test {

enum class side : u8 {
  plain,
  pppoe,
  l2tp,
  pptp,
};

/// A registered VLAN device.
class vlan_device {
 public:
  vlan_device(const char* name, net_device* below, u16 vid);
  ~vlan_device() { unregister_netdevice(dev_); }
  vlan_device(const vlan_device&) = delete;
  vlan_device& operator=(const vlan_device&) = delete;

  operator net_device*() const { return dev_; }
  net_device* operator->() const { return dev_; }

 private:
  net_device* dev_;
};

/// A PPP interface with its channel. Its end sweeps the module's tables, as the stack does.
class ppp_interface {
 public:
  static ppp_interface* pppoe(const char* name, net_device* below, u16 sid, const char* peer_mac);
  static ppp_interface* pptp(const char* name, endpoint local, endpoint remote);
  static ppp_interface* l2tp(const char* name, endpoint local, endpoint remote, u16 first_id,
                             bool send_seq = false);
  ~ppp_interface();
  ppp_interface(const ppp_interface&) = delete;
  ppp_interface& operator=(const ppp_interface&) = delete;

  fake_device dev;

  [[nodiscard]] pptp_params* call() const { return &channel_of<pptp_channel>()->params; }
  [[nodiscard]] l2tp_params* tunnel() const { return &channel_of<l2tp_channel>()->params; }
  [[nodiscard]] l2tp_session* session() const { return session_; }
  [[nodiscard]] pppoe_params* pppoe_session() const { return &channel_of<pppoe_channel>()->params; }

 private:
  ppp_interface(const char* name, ppp_channel* channel, u32 mtu);

  template <typename Channel>
  [[nodiscard]] Channel* channel_of() const {
    return reinterpret_cast<Channel*>(channel_);
  }

  ppp_channel* channel_;
  scoped_neighbour far_end_;
  l2tp_session* session_ = nullptr;
};

inline constexpr u16 inside_sid = 0x5678;
inline constexpr u16 upstream_sid = 0x1234;
inline constexpr const char* session_mac = "02:00:00:00:09:33";
inline constexpr u16 vlan_below_upstream = 7;

/// Ids of a tunnel: own tunnel and session (call), then the peer's.
inline constexpr u16 inside_ids = 10;
inline constexpr u16 upstream_ids = 110;
inline constexpr u16 peer_tunnel_step = 1, session_step = 2, peer_session_step = 3;

inline constexpr endpoint inside_tunnel_local = {"192.168.1.1", 1701};
inline constexpr endpoint inside_tunnel_remote = {"192.168.1.9", 1702};
inline constexpr endpoint upstream_tunnel_local = {"203.0.113.9", 1703};
inline constexpr endpoint upstream_tunnel_remote = {"192.0.2.1", 1704};

class ppp_scene : public module_scene {
 protected:
  /// Makes the devices and routes of a way from one side to the other.
  void set_up(side in, side out, bool vlan_out = false, bool send_seq = false);
  /// Reports the connection on that way, 20 times.
  void connect();

  /// The layers ahead of the inner packet as it comes in and as it must leave.
  [[nodiscard]] packet arriving(bool tagged = false) const;
  [[nodiscard]] packet leaving(u8 tag_priority = 0) const;
  /// Adds the inner packet: TCP, as it comes or translated.
  [[nodiscard]] static packet with_inner(packet outer, bool is_translated, std::size_t payload = 0);

  [[nodiscard]] bytes offered(bool tagged = false, std::size_t payload = 0) const {
    return with_inner(arriving(tagged), false, payload).build();
  }
  [[nodiscard]] bytes expected(u8 tag_priority = 0, std::size_t payload = 0) const {
    return with_inner(leaving(tag_priority), true, payload).build();
  }
  [[nodiscard]] static ipc_entry* entry();
  [[nodiscard]] net_device* input() const;
  [[nodiscard]] net_device* carrier() const;

  side in_ = side::plain;
  side out_ = side::plain;
  u32 next_seq_ = 1;  ///< of the upstream PPTP call
  tracked_connection ct{tuple(wire::ip_protocol::tcp, inside, peer),
                        tuple(wire::ip_protocol::tcp, peer, translated)};
  std::unique_ptr<vlan_device> vlan_;
  std::unique_ptr<scoped_neighbour> vlan_gateway_;
  std::unique_ptr<ppp_interface> in_ppp_;
  std::unique_ptr<ppp_interface> out_ppp_;
  std::optional<scoped_route> tunnel_route_;
  std::optional<scoped_route> peer_route_;
};

}  // namespace tarvelo::test
