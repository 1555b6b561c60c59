// SPDX-License-Identifier: GPL-2.0-only
//
// The router's PPP sessions, found by what a received frame shows of them.
//
// Filled while the router is built and constant from then on, so packet workers read it without a
// lock. Ids and addresses are as they lie in the packet (network byte order).
#pragma once

#include <map>
#include <memory>
#include <tuple>
#include <vector>

#include "stack/config.h"
#include "stack/ppp_session.h"

namespace tarvelo::stack {

class ppp_table {
 public:
  /// Gives a registered interface its session. Throws setup_error.
  ///@{
  void add(net_device* dev, const pppoe_link& link, net_device* parent);
  void add(net_device* dev, const l2tp_link& link);
  void add(net_device* dev, const pptp_link& link);
  ///@}

  /// Looks up the ways of the tunnels, once all routes are there, and fits each interface's MTU to
  /// what its packets have to pass. Throws setup_error for a tunnel whose other end has no route,
  /// or only one through the tunnel itself.
  void settle();

  /// Ends all sessions, process context.
  void clear() noexcept;

  /// `on` is the device that the session runs on.
  [[nodiscard]] ppp_session* find_pppoe(const net_device* on, wire::be16 sid) const noexcept;
  [[nodiscard]] ppp_session* find_l2tp(wire::be16 tunnel, wire::be16 session) const noexcept;
  [[nodiscard]] ppp_session* find_pptp(wire::be32 local, wire::be32 remote,
                                       wire::be16 call) const noexcept;

  [[nodiscard]] const std::vector<std::unique_ptr<ppp_session>>& all() const noexcept {
    return sessions_;
  }

 private:
  using pppoe_key = std::tuple<const net_device*, u16>;
  using l2tp_key = std::tuple<u16, u16>;
  using pptp_key = std::tuple<u32, u32, u16>;

  [[nodiscard]] l2tp_tunnel* tunnel(u16 id) const noexcept;
  void settle(ppp_session& session, std::size_t tunnels_above);

  std::vector<std::unique_ptr<ppp_session>> sessions_;
  std::map<pppoe_key, ppp_session*> pppoe_;
  std::map<l2tp_key, ppp_session*> l2tp_;
  std::map<pptp_key, ppp_session*> pptp_;
};

}  // namespace tarvelo::stack
