// SPDX-License-Identifier: GPL-2.0-only
#include "app/config.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "app/address_text.h"

namespace tarvelo::app {
namespace {

class config_test : public testing::Test {
 protected:
  ~config_test() override { std::filesystem::remove(file_); }

  /// Loads `text` from a file that stands as "F" in messages.
  app_config load(const std::string& text) {
    std::ofstream(file_) << text;
    return load_config(file_);
  }
  /// What is said of `text`; "good" when nothing is wrong with it.
  std::string verdict(const std::string& text) {
    try {
      load(text);
    } catch (const input_error& error) {
      std::string what = error.what();
      if (what.starts_with(file_)) what.replace(0, file_.size(), "F");
      return what;
    }
    return "good";
  }

  const std::string file_ = testing::TempDir() + "config_test_" + std::to_string(getpid());
};

// Lines 1 to 15 of most rows.
const std::string two_ports = R"([[device]]
name = "lan0"
type = "port"
mac = "02:00:00:00:01:01"
address = ["192.168.1.1/24", "2001:db8:1::1/64"]

[[device]]
name = "wan0"
type = "port"
mac = "02:00:00:00:03:01"
address = ["203.0.113.9/24"]
[[route]]
to = "0.0.0.0/0"
via = "203.0.113.1"
device = "wan0"
)";

const std::string every_kind = R"(
[[device]]
name = "lan0"
type = "port"
interface = "veth-lan"
mac = "02:00:00:00:01:01"
mtu = 9000
[[device]]
name = "wan0"
type = "port"
mac = "02:00:00:00:03:01"
[[device]]
name = "wan0.7"
type = "vlan"
parent = "wan0"
id = 7
reorder_header = false
[[device]]
name = "br0"
type = "bridge"
ports = ["lan0"]
mac = "02:00:00:00:02:01"
address = ["192.168.2.1/24", "2001:db8:2::1/64"]
[[device]]
name = "ppp0"
type = "pppoe"
parent = "wan0.7"
session = 4660
peer_mac = "02:00:00:00:09:01"
address = ["203.0.113.9/32"]
peer = "203.0.113.1"
[[device]]
name = "ppp1"
type = "l2tp"
local = "203.0.113.9"
remote = "198.51.100.7"
tunnel = 10
peer_tunnel = 20
session = 30
peer_session = 40
address = ["10.8.0.2/32"]
peer = "10.8.0.1"
[[device]]
name = "ppp2"
type = "pptp"
local = "203.0.113.9"
remote = "198.51.100.8"
call = 5
peer_call = 9
address = ["10.9.0.2/32"]
peer = "10.9.0.1"
[[device]]
name = "tun0"
type = "rawip"
address = ["10.10.0.1/32"]
peer = "10.10.0.2"
[[route]]
to = "0.0.0.0/0"
via = "203.0.113.1"
device = "ppp0"
[[route]]
to = "2001:db8:ffff::/48"
via = "fe80::1"
device = "br0"
[[neighbour]]
device = "br0"
address = "192.168.2.2"
mac = "02:00:00:00:01:02"
[nat]
masquerade = ["ppp0"]
[[nat.forward]]
device = "ppp0"
protocol = "tcp"
port = 8080
to = "192.168.2.2:80"
[[helper]]
protocol = "tcp"
port = 21
name = "ftp"
[[slow]]
protocol = "udp"
port = 5060
[control]
mount = "/tmp/somewhere"
fast_path = false
)";

TEST_F(config_test, every_kind_of_device_and_rule_is_read) {
  const app_config config = load(every_kind);
  const stack::router_config& router = config.router;
  ASSERT_EQ(router.devices.size(), 8U);
  EXPECT_EQ(std::get<stack::port_link>(router.devices[0].link).interface, "veth-lan");
  EXPECT_EQ(router.devices[0].mtu, 9000U);
  EXPECT_EQ(std::get<stack::port_link>(router.devices[1].link).interface, "wan0");
  EXPECT_EQ(router.devices[1].mtu, 1500U);
  const auto& vlan = std::get<stack::vlan_link>(router.devices[2].link);
  EXPECT_EQ(vlan.id, 7);
  EXPECT_FALSE(vlan.reorder_header);
  EXPECT_EQ(router.devices[3].addresses.size(), 2U);
  const auto& pppoe = std::get<stack::pppoe_link>(router.devices[4].link);
  EXPECT_EQ(pppoe.session, 4660);
  EXPECT_EQ(pppoe.peer_mac.bytes[5], 1);
  EXPECT_EQ(to_text(*router.devices[4].peer), "203.0.113.1");
  const auto& l2tp = std::get<stack::l2tp_link>(router.devices[5].link);
  EXPECT_EQ(l2tp.local_port, 1701);
  EXPECT_EQ(l2tp.peer_session, 40);
  EXPECT_EQ(l2tp.remote, *parse_ipv4("198.51.100.7"));
  EXPECT_EQ(std::get<stack::pptp_link>(router.devices[6].link).peer_call, 9);
  EXPECT_EQ(std::get<stack::rawip_link>(router.devices[7].link).interface, "tun0");
  ASSERT_EQ(router.forwards.size(), 1U);
  EXPECT_EQ(router.forwards[0].to_port, 80);
  EXPECT_EQ(router.helpers.at(0).name, "ftp");
  EXPECT_EQ(router.slow.at(0).protocol, wire::ip_protocol::udp);
  EXPECT_EQ(config.control.mount, "/tmp/somewhere");
  EXPECT_FALSE(config.control.fast_path);
}

TEST_F(config_test, shipped_examples_are_good) {
  u32 seen = 0;
  for (const auto& entry : std::filesystem::directory_iterator(EXAMPLES)) {
    if (entry.path().extension() != ".toml") continue;
    EXPECT_NO_THROW((void)load_config(entry.path().string())) << entry.path();
    ++seen;
  }
  EXPECT_GE(seen, 4U);
}

struct row {
  std::string text;
  std::string said;
};

std::string port_with(const std::string& lines) {
  return "[[device]]\nname = \"p\"\ntype = \"port\"\nmac = \"02:00:00:00:01:01\"\n" + lines;
}

TEST_F(config_test, faults_of_single_values) {
  const row rows[] = {
      {"", "F: no device (device); describe at least one [[device]]"},
      {"[[device]]\nname = ",
       "F:2:8: not TOML: Error while parsing key-value pair: encountered "
       "end-of-file; correct the syntax"},
      {"device = 1", "F:1:10: an integer where [[device]] belongs (device); write [[device]]"},
      {two_ports + "[spare]",
       "F:16:2: unknown key (spare); take it out or write one of device, route, neighbour, nat, "
       "helper, slow, control"},
      {port_with("speed = 1"),
       "F:5:1: unknown key (device.speed); take it out or write one of name, type, interface, "
       "mac, mtu, address"},
      {port_with("peer = \"10.0.0.1\""),
       "F:5:1: unknown key (device.peer); take it out or write one of name, type, interface, "
       "mac, mtu, address"},
      {"[[device]]\ntype = \"port\"", "F:1:1: a key is missing (device.name); name it"},
      {"[[device]]\nname = \"a b\"\ntype = \"port\"",
       "F:2:8: \"a b\" is not a name (device.name); write 1 to 15 characters without blanks, "
       "quotes and slashes"},
      {"[[device]]\nname = \"a\"\ntype = \"hub\"",
       "F:3:8: no such type of device \"hub\" (device.type); write one of port, vlan, bridge, "
       "pppoe, l2tp, pptp, rawip"},
      {"[[device]]\nname = \"a\"\ntype = \"port\"\nmac = \"03:00:00:00:00:01\"",
       "F:4:7: 03:00:00:00:00:01 is a group's address (device.mac); make the first byte even"},
      {"[[device]]\nname = \"a\"\ntype = \"port\"\nmac = \"02:00\"",
       "F:4:7: \"02:00\" is not a MAC address (device.mac); write six bytes as in "
       "02:00:00:00:01:01"},
      {"[[device]]\nname = \"a\"\ntype = \"port\"\nmac = 2",
       "F:4:7: an integer where a string belongs (device.mac); write a string"},
      {port_with("address = [\"\\u0000\\u001B[2J\"]"),
       "F:5:12: \"\\x00\\x1B[2J\" is not an address with its length (device.address); write it as "
       "in "
       "192.168.1.1/24 or 2001:db8:1::1/64"},
      {port_with("mtu = 67"),
       "F:5:7: 67 is out of range (device.mtu); write a number from 68 to "
       "65535"},
      {port_with("mtu = 68.5"),
       "F:5:7: a value of another kind where an integer belongs "
       "(device.mtu); write an integer"},
      {port_with("address = [\"10.0.0.1/24\", \"10.0.1.1\"]"),
       "F:5:27: \"10.0.1.1\" is not an address with its length (device.address); write it as in "
       "192.168.1.1/24 or 2001:db8:1::1/64"},
      {port_with("[[device]]\nname = \"v\"\ntype = \"vlan\"\nparent = \"p\"\nid = 4095"),
       "F:9:6: 4095 is out of range (device.id); write a number from 1 to 4094"},
      {port_with("[[device]]\nname = \"s\"\ntype = \"pppoe\"\nparent = \"p\"\nsession = 65535"),
       "F:9:11: 65535 is out of range (device.session); write a number from 1 to 65534"},
      {two_ports + "[[nat.forward]]\ndevice = \"wan0\"\nprotocol = \"tcp\"\nport = 80\n"
                   "to = \"192.168.1.2:0\"",
       "F:20:6: \"192.168.1.2:0\" is not a place to forward to (nat.forward.to); write an IPv4 "
       "address and a port as in 192.168.1.2:80"},
      {two_ports + "[[slow]]\nprotocol = \"icmp\"\nport = 1",
       "F:17:12: no such protocol \"icmp\" (slow.protocol); write \"tcp\" or \"udp\""},
      {two_ports + "[control]\nmount = \"proc\"",
       "F:17:9: \"proc\" is not an absolute path (control.mount); write it as in "
       "/run/tarvelo/proc"},
      {two_ports + "[control]\nfast_path = 1",
       "F:17:13: an integer where true or false belongs (control.fast_path); write true or false"},
  };
  for (const row& r : rows)
    EXPECT_EQ(verdict(r.text), r.said) << r.text;
}

// Names become file names and lines of text.
TEST_F(config_test, a_device_name_leads_nowhere_and_breaks_no_line) {
  for (const char* name : {"", ".", "..", "/", "../../tmp/x", "a/b", "a\\u0000b", "a\\nb", "a\\tb",
                           "a\\u007Fb", "a\\u00E9", "a\\\\b", "sixteen-letters-"}) {
    const std::string said = verdict("[[device]]\nname = \"" + std::string(name) + "\"\n");
    EXPECT_TRUE(said.starts_with("F:2:8: \"")) << said;
    EXPECT_TRUE(said.ends_with("without blanks, quotes and slashes")) << said;
    EXPECT_EQ(said.find_first_of("\n\t\x7F"), std::string::npos) << name;
    EXPECT_EQ(said.find('\0'), std::string::npos) << name;
  }
}

std::string device(const std::string& name, const std::string& type, const std::string& lines) {
  return "[[device]]\nname = \"" + name + "\"\ntype = \"" + type + "\"\n" + lines + "\n";
}

const std::string tunnel_ids =
    "tunnel = 1\npeer_tunnel = 1\nsession = 1\npeer_session = 1\nlocal = \"203.0.113.9\"\n";

TEST_F(config_test, faults_between_devices) {
  const std::string vlan = device("v", "vlan", "parent = \"wan0\"\nid = 7");
  const std::string pppoe = "parent = \"wan0\"\nsession = 1\npeer_mac = \"02:00:00:00:09:01\"";
  const std::string bridge = "mac = \"02:00:00:00:02:01\"\nports = [\"v\"";
  const row rows[] = {
      {two_ports + device("lan0", "port", "mac = \"02:00:00:00:05:01\""),
       "F:17:8: a second device \"lan0\" (device.name); give each device its own name"},
      {two_ports + device("x", "port", "mac = \"02:00:00:00:01:01\""),
       "F:19:7: this MAC address is taken by \"lan0\" (device.mac); give each port its own"},
      {two_ports + device("x", "rawip", "interface = \"lan0\""),
       "F:19:13: interface \"lan0\" is taken by \"lan0\" (device.interface); give each device an "
       "interface of its own"},
      {two_ports + device("x", "vlan", "parent = \"eth9\"\nid = 7"),
       "F:19:10: no device \"eth9\" (device.parent); name a [[device]] of this file"},
      {two_ports + vlan + device("w", "vlan", "parent = \"v\"\nid = 8"),
       "F:24:10: \"v\" cannot carry a VLAN (device.parent); name a port or a bridge"},
      {two_ports + vlan + device("w", "vlan", "parent = \"wan0\"\nid = 7"),
       "F:25:6: VLAN 7 on \"wan0\" is taken by \"v\" (device.id); choose another id"},
      {two_ports + device("w", "vlan", "parent = \"wan0\"\nid = 7\nmtu = 1501"),
       "F:21:7: w has an MTU of 1501, \"wan0\" beneath it 1500 (device.mtu); set mtu = 1500 or "
       "raise that of \"wan0\""},
      {two_ports + vlan + device("b", "bridge", bridge + "]") + device("c", "bridge", bridge + "]"),
       "F:30:10: \"v\" is a port of \"b\" already (device.ports); list a device in one bridge, "
       "once"},
      {two_ports + vlan + device("b", "bridge", bridge + ", \"lan0\"]"),
       "F:5:12: \"lan0\" has an address and is a port of \"b\" (device.address); give the address "
       "to the bridge"},
      {two_ports + device("b", "bridge", "mac = \"02:00:00:00:02:01\"\nports = []"),
       "F:20:9: a bridge without ports (device.ports); name its ports"},
      {two_ports + device("p", "pppoe", pppoe) + device("q", "pppoe", pppoe),
       "F:26:11: session 1 on \"wan0\" is taken by \"p\" (device.session); give each session on a "
       "device its own id"},
      {two_ports + device("t", "l2tp", tunnel_ids + "remote = \"198.51.100.7\"") +
           device("u", "l2tp", tunnel_ids + "remote = \"198.51.100.7\""),
       "F:30:11: session 1 of tunnel 1 is taken by \"t\" (device.session); give each session of a "
       "tunnel its own id"},
  };
  for (const row& r : rows)
    EXPECT_EQ(verdict(r.text), r.said) << r.text;
}

TEST_F(config_test, faults_of_addresses_and_paths) {
  const auto port = [](const std::string& address) {
    return device("x", "port", "mac = \"02:00:00:00:05:01\"\naddress = [\"" + address + "\"]");
  };
  const auto route = [](const std::string& to, const std::string& via, const std::string& by) {
    return "[[route]]\nto = \"" + to + "\"\nvia = \"" + via + "\"\ndevice = \"" + by + "\"\n";
  };
  const auto neighbour = [](const std::string& address) {
    return "[[neighbour]]\ndevice = \"lan0\"\naddress = \"" + address +
           "\"\nmac = \"02:00:00:00:01:02\"\n";
  };
  const auto forward = [](const std::string& to) {
    return "[[nat.forward]]\ndevice = \"wan0\"\nprotocol = \"tcp\"\nport = 80\nto = \"" + to +
           ":80\"\n";
  };
  const row rows[] = {
      {two_ports + port("192.168.1.7/24"),
       "F:20:12: 192.168.1.7/24 clashes with 192.168.1.1/24 of \"lan0\" (device.address); give "
       "each device a network of its own"},
      {two_ports + port("192.168.1.1/32"),
       "F:20:12: 192.168.1.1/32 clashes with 192.168.1.1/24 of \"lan0\" (device.address); give "
       "each device a network of its own"},
      {two_ports + port("2001:db8:1::2/64"),
       "F:20:12: 2001:db8:1::2/64 clashes with 2001:db8:1::1/64 of \"lan0\" (device.address); "
       "give each device a network of its own"},
      {two_ports + port("10.0.0.255/24"),
       "F:20:12: 10.0.0.255/24 is the broadcast address of its network (device.address); give it "
       "a host's"},
      {two_ports + port("224.0.0.1/24"),
       "F:20:12: 224.0.0.1/24 is a multicast address (device.address); give it a host's"},
      {two_ports + port("192.168.1.129/25"), "good"},
      {two_ports + device("t", "rawip", "peer = \"203.0.113.9\""),
       "F:19:8: 203.0.113.9 is an address of \"wan0\" (device.peer); give the address of the "
       "other end"},
      {two_ports + route("10.0.0.1/8", "203.0.113.1", "wan0"),
       "F:17:6: 10.0.0.1/8 has bits beyond its length (route.to); write 10.0.0.0/8"},
      {two_ports + route("0.0.0.0/0", "203.0.113.1", "wan0"),
       "F:17:6: a second route to 0.0.0.0/0 (route.to); give each prefix one route"},
      {two_ports + route("192.168.1.0/24", "203.0.113.1", "wan0"),
       "F:17:6: 192.168.1.0/24 is connected to \"lan0\" (route.to); take the route out"},
      {two_ports + route("10.0.0.0/8", "203.0.113.1", "wan9"),
       "F:19:10: no device \"wan9\" (route.device); name a [[device]] of this file"},
      {two_ports + route("10.0.0.0/8", "203.0.113.1", "lan0"),
       "F:18:7: gateway 203.0.113.1 is not behind \"lan0\" (route.via); give a gateway in one of "
       "the device's networks"},
      {two_ports + route("10.0.0.0/8", "2001:db8:1::2", "lan0"),
       "F:18:7: 2001:db8:1::2 is not of the family of the prefix (route.via); give a gateway of "
       "the same family"},
      {two_ports + route("10.0.0.0/8", "203.0.113.9", "wan0"),
       "F:18:7: 203.0.113.9 is an address of \"wan0\" (route.via); give the gateway's address"},
      {two_ports + route("10.0.0.0/8", "203.0.113.255", "wan0"),
       "F:18:7: 203.0.113.255 is the first or last address of the network of \"wan0\" (route.via); "
       "give a gateway's address"},
      {two_ports + neighbour("192.168.1.0"),
       "F:18:11: 192.168.1.0 is the first or last address of the network of \"lan0\" "
       "(neighbour.address); give it a host's"},
      {two_ports + forward("192.168.1.255"),
       "F:20:6: 192.168.1.255 is the first or last address of the network of \"lan0\" "
       "(nat.forward.to); give it a host's"},
      {two_ports + neighbour("10.0.0.1"),
       "F:18:11: 10.0.0.1 is not behind \"lan0\" (neighbour.address); name a host of the device's "
       "networks"},
      {two_ports + neighbour("192.168.1.2") + neighbour("192.168.1.2"),
       "F:22:11: a second neighbour 192.168.1.2 (neighbour.address); name each once"},
      {two_ports + device("t", "l2tp", tunnel_ids + "remote = \"198.51.100.7\""), "good"},
      {device("x", "port", "mac = \"02:00:00:00:05:01\"\naddress = [\"203.0.113.9/24\"]") +
           device("t", "l2tp", tunnel_ids + "remote = \"198.51.100.7\""),
       "F:14:10: no route to 198.51.100.7 (device.remote); add a [[route]] by another device"},
      {two_ports + device("t", "pptp",
                          "local = \"10.0.0.1\"\nremote = \"198.51.100.7\"\ncall = 1\n"
                          "peer_call = 1"),
       "F:19:9: no other device has 10.0.0.1 (device.local); give an address of the device that "
       "the tunnel leaves by"},
      {two_ports + "[nat]\nmasquerade = [\"wan0\", \"wan9\"]",
       "F:17:23: no device \"wan9\" (nat.masquerade); name a [[device]] of this file"},
      {two_ports + device("x", "rawip", "") + "[nat]\nmasquerade = [\"x\"]",
       "F:21:15: \"x\" has no IPv4 address (nat.masquerade); give it one or take it out"},
      {two_ports + forward("192.168.1.2") + forward("192.168.1.3"),
       "F:24:8: port 80 is forwarded already (nat.forward.port); forward each port once"},
      {two_ports + forward("192.168.1.1"),
       "F:20:6: 192.168.1.1 is an address of \"lan0\" (nat.forward.to); forward to another host"},
      {two_ports + "[[slow]]\nprotocol = \"udp\"\nport = 1\n[[slow]]\nprotocol = \"tcp\"\n"
                   "port = 1\n[[slow]]\nprotocol = \"udp\"\nport = 1",
       "F:24:8: port 1 a second time (slow.port); name each port of a protocol once"},
  };
  for (const row& r : rows)
    EXPECT_EQ(verdict(r.text), r.said) << r.text;
}

TEST_F(config_test, an_error_of_the_router_is_placed_at_the_device_it_names) {
  const app_config config = load(two_ports);
  EXPECT_EQ(place_named_in(config, "\"wan0\": no").line, 7U);
  EXPECT_EQ(place_named_in(config, "lan0: no").line, 1U);
  EXPECT_EQ(place_named_in(config, "lan0.7 and xwan0: no").line, 0U);
}

}  // namespace
}  // namespace tarvelo::app
