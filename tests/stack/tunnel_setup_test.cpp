// SPDX-License-Identifier: GPL-2.0-only
//
// Routers with PPP interfaces that cannot be built.
#include "tests/stack/tunnel_fixture.h"

namespace tarvelo::test {
namespace {

constexpr uplink_options session = {.name = "pppoe", .kind = uplink_kind::line};
constexpr uplink_options l2tp = {.name = "l2tp", .kind = uplink_kind::l2tp};
constexpr uplink_options pptp = {.name = "pptp", .kind = uplink_kind::pptp};

class tunnel_setup_test : public tunnel_test {
 protected:
  std::string refusal() {
    try {
      router = std::make_unique<stack::router>(config, recording_ops());
    } catch (const stack::setup_error& error) {
      return error.what();
    }
    router.reset();
    return "";
  }
};

TEST_F(tunnel_setup_test, refuses_by_name_what_cannot_work) {
  stack::router_config unreachable = uplink_config(line_kind::ethernet, l2tp);
  std::get<stack::l2tp_link>(unreachable.devices.back().link).remote = ip4("192.0.2.1");
  stack::router_config circle = unreachable;
  circle.routes.push_back({prefix_of("192.0.2.0", 24), std::nullopt, "ppp1"});
  stack::router_config itself = uplink_config(line_kind::ethernet, pptp);
  std::get<stack::pptp_link>(itself.devices.back().link).remote = ip4(lan_address);
  stack::router_config narrow = uplink_config(line_kind::ethernet, pptp);
  narrow.devices[1].mtu = 100;
  const auto doubled = [](line_kind line, const uplink_options& options) {
    stack::router_config twice = uplink_config(line, options);
    twice.devices.push_back(twice.devices.back());
    twice.devices.back().name = "again";
    twice.devices.back().addresses.clear();
    twice.devices.back().peer.reset();
    return twice;
  };
  const struct {
    stack::router_config bad;
    const char* text;
  } rows[] = {
      {unreachable, "device \"ppp1\": no route to its other end"},
      {circle, "device \"ppp1\": its other end is behind itself"},
      {itself, "device \"ppp1\": its other end is not another host"},
      {narrow, "device \"ppp1\": the MTU of \"wan0\" is too small"},
      {doubled(line_kind::pppoe, session), "device \"again\": the session id is taken by \"ppp0\""},
      {doubled(line_kind::ethernet, l2tp), "device \"again\": the session id is taken by \"ppp1\""},
      {doubled(line_kind::ethernet, pptp), "device \"again\": the call id is taken by \"ppp1\""},
  };
  for (const auto& row : rows) {
    config = row.bad;
    EXPECT_EQ(refusal(), row.text);
  }
}

}  // namespace
}  // namespace tarvelo::test
