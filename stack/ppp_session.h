// SPDX-License-Identifier: GPL-2.0-only
//
// A PPP interface of the router: the point-to-point device, the channel that carries its packets,
// and the device below.
//
// Sessions are configured, never negotiated. They are made while the router is built, when all
// devices are registered, and ended before the first device goes. In between nothing of them
// changes but what their channel objects share with the fast path, so packet workers read them
// without a lock.
#pragma once

#include <memory>

#include "kernel/ppp_channel.h"
#include "stack/config.h"

namespace tarvelo::stack {

struct ppp_session {
  explicit ppp_session(net_device* interface) noexcept : dev(interface) {}
  /// Takes the session out of the module's caches, and its channel from the interface. Process
  /// context.
  ~ppp_session();
  ppp_session(const ppp_session&) = delete;
  ppp_session& operator=(const ppp_session&) = delete;

  [[nodiscard]] ppp_channel_type type() const noexcept { return channel->type; }
  /// The channel's parameters; each only for a session of that type.
  ///@{
  [[nodiscard]] pppoe_params& pppoe() const noexcept;
  [[nodiscard]] l2tp_params& l2tp() const noexcept;
  [[nodiscard]] pptp_params& pptp() const noexcept;
  ///@}

  net_device* dev;                 ///< its `priv` points back here
  ppp_channel* channel = nullptr;  ///< owned
  /// What its frames leave by: the device a PPPoE session runs on, or that of the route to a
  /// tunnel's other end, null until that is looked up.
  net_device* lower = nullptr;
};

/// Sessions of registered interfaces. Throw setup_error. An L2TP session joins a tunnel that is
/// there, or with null begins one.
///@{
[[nodiscard]] std::unique_ptr<ppp_session> make_session(net_device* dev, const pppoe_link& link,
                                                        net_device* parent);
[[nodiscard]] std::unique_ptr<ppp_session> make_session(net_device* dev, const l2tp_link& link,
                                                        l2tp_tunnel* tunnel);
[[nodiscard]] std::unique_ptr<ppp_session> make_session(net_device* dev, const pptp_link& link);
///@}

/// The session of a device, or null for a device that is no PPP interface. `router_dev` is one of
/// the router's own.
[[nodiscard]] ppp_session* session_of(const net_device* router_dev) noexcept;

/// Bytes that the session puts in front of a packet, at most: what its device's MTU is smaller by
/// than that of the device below.
[[nodiscard]] u32 encapsulation_length(const ppp_session& session) noexcept;

}  // namespace tarvelo::stack
