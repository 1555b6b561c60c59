// SPDX-License-Identifier: GPL-2.0-only
//
// On a real pair of virtual interfaces in a network namespace of the test's own; skipped where none
// can be made.
#include "ports/packet_socket.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/ports/tunnel_device.h"
#include "tests/support/frame_match.h"
#include "tests/support/kernel_fixture.h"
#include "tests/support/packet_builder.h"

namespace tarvelo::ports {
namespace {

using test::bytes;
using test::packet;

constexpr const char* near_mac = "02:00:00:00:01:01";
constexpr const char* far_mac = "02:00:00:00:01:02";
constexpr int wait_ms = 2000;

/// "near" is the router's, "far" a host's.
class packet_socket_test : public test::kernel_test {
 protected:
  void SetUp() override {
    if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "no network namespaces here";
    for (const char* command : {
             "ip link add near type veth peer name far address 02:00:00:00:01:02",
             "sysctl -qw net.ipv6.conf.near.disable_ipv6=1 net.ipv6.conf.far.disable_ipv6=1",
             "ip address add 192.168.1.2/24 dev far",
             "ip link set near up",
             "ip link set far up",
             "ip neighbour add 192.168.1.9 lladdr 02:00:00:00:01:01 dev far",
         }) {
      ASSERT_EQ(std::system(command), 0) << command;
    }
    near_dev_ = alloc_netdev("near", ARPHRD_ETHER);
    far_dev_ = alloc_netdev("far", ARPHRD_ETHER);
  }
  void TearDown() override {
    if (near_dev_ != nullptr) free_netdev(near_dev_);
    if (far_dev_ != nullptr) free_netdev(far_dev_);
  }

  /// Waits for `count` frames; fewer when they do not come.
  static std::vector<bytes> receive(port& from, std::size_t count) {
    std::vector<sk_buff*> buffers;
    pollfd event{from.poll_fd(), POLLIN, 0};
    while (buffers.size() < count && poll(&event, 1, wait_ms) > 0)
      (void)from.receive(buffers);
    std::vector<bytes> frames;
    for (sk_buff* skb : buffers) {
      EXPECT_GE(skb_headroom(skb), 128U);
      EXPECT_EQ(skb->dev, from.device());
      priorities_.push_back(skb->priority);
      frames.emplace_back(skb->data, skb->data + skb->len);
      kfree_skb(skb);
    }
    return frames;
  }

  static void send(port& by, const bytes& frame) {
    sk_buff* skb = alloc_receive_buffer(static_cast<u32>(frame.size()));
    std::copy(frame.begin(), frame.end(), skb_put(skb, static_cast<u32>(frame.size())));
    by.transmit(skb);
  }

  static inline std::vector<u32> priorities_;
  net_device* near_dev_ = nullptr;
  net_device* far_dev_ = nullptr;
};

TEST_F(packet_socket_test, frames_arrive_as_they_were_sent_with_their_tag) {
  packet_socket near("near", link_layer::ethernet, 1500);
  packet_socket far("far", link_layer::ethernet, 1500);
  near.attach(near_dev_);
  far.attach(far_dev_);
  priorities_.clear();
  const bytes frames[] = {
      packet().eth(far_mac, near_mac).ipv4("1.1.1.1", "2.2.2.2").udp(1, 2).payload(5).build(),
      packet()
          .eth(far_mac, near_mac)
          .vlan(7, 5)
          .ipv4("1.1.1.1", "2.2.2.2")
          .udp(1, 2)
          .payload(1472)
          .build(),
      packet().eth("02:00:00:00:07:07", near_mac).ipv4("1.1.1.1", "2.2.2.2").tcp(1, 2).build(),
  };
  for (const bytes& frame : frames)
    send(near, frame);
  near.flush();
  const auto got = receive(far, std::size(frames));
  ASSERT_EQ(got.size(), std::size(frames));
  for (std::size_t i = 0; i < got.size(); ++i)
    EXPECT_FRAME_EQ(got[i], frames[i]);
  EXPECT_EQ(priorities_, (std::vector<u32>{0, 5, 0}));
  EXPECT_EQ(near.statistics().sent, std::size(frames));

  // What went out does not come back.
  std::vector<sk_buff*> echo;
  EXPECT_FALSE(near.receive(echo));
}

TEST_F(packet_socket_test, a_batch_larger_than_a_queue_goes_out_whole) {
  packet_socket near("near", link_layer::ethernet, 1500);
  packet_socket far("far", link_layer::ethernet, 1500);
  near.attach(near_dev_);
  far.attach(far_dev_);
  constexpr u16 frames = 3 * batch_frames + 5;
  for (u16 i = 0; i < frames; ++i) {
    send(near, packet().eth(far_mac, near_mac).ipv4("1.1.1.1", "2.2.2.2").udp(i, 2).build());
  }
  near.flush();
  const auto got = receive(far, frames);
  ASSERT_EQ(got.size(), frames);
  for (u16 i = 0; i < frames; ++i)
    EXPECT_EQ(test::udp_of(got[i]).source.host(), i);
}

TEST_F(packet_socket_test, what_a_local_sender_leaves_undone_is_done) {
  packet_socket near("near", link_layer::ethernet, 1500);
  near.attach(near_dev_);
  const owned_fd sender{socket(AF_INET, SOCK_DGRAM, 0)};
  const int segment = 500;
  ASSERT_EQ(setsockopt(sender.get(), IPPROTO_UDP, UDP_SEGMENT, &segment, sizeof segment), 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = wire::htons(5000);
  to.sin_addr.s_addr = test::ip4("192.168.1.9");
  const bytes payload(2100, 0x5A);
  for (const std::size_t length : {std::size_t{100}, payload.size()}) {
    ASSERT_EQ(sendto(sender.get(), payload.data(), length, 0, reinterpret_cast<sockaddr*>(&to),
                     sizeof to),
              static_cast<ssize_t>(length));
  }
  const auto frames = receive(near, 6);
  const std::size_t lengths[] = {100, 500, 500, 500, 500, 100};
  ASSERT_EQ(frames.size(), std::size(lengths));
  for (std::size_t i = 0; i < frames.size(); ++i) {
    EXPECT_EQ(test::payload_of(frames[i]).size(), lengths[i]);
    EXPECT_TRUE(test::sound_frame(frames[i])) << i;
  }
}

TEST_F(packet_socket_test, a_link_that_is_down_loses_frames_and_nothing_else) {
  packet_socket near("near", link_layer::ethernet, 1500);
  near.attach(near_dev_);
  EXPECT_TRUE(query_interface("near")->link_up);
  ASSERT_EQ(std::system("ip link set near down"), 0);
  EXPECT_FALSE(query_interface("near")->link_up);
  const bytes frame = packet().eth(far_mac, near_mac).ipv4("1.1.1.1", "2.2.2.2").udp(1, 2).build();
  for (int i = 0; i < 3; ++i)
    send(near, frame);
  near.flush();
  EXPECT_EQ(near.statistics().sent, 0U);
  EXPECT_EQ(near.statistics().transmit_errors, 3U);
  // The kernel takes a while from "up" to the first frame.
  ASSERT_EQ(std::system("ip link set near up"), 0);
  for (int tries = 0; near.statistics().sent == 0 && tries < wait_ms; ++tries) {
    send(near, frame);
    near.flush();
    usleep(1000);
  }
  EXPECT_EQ(near.statistics().sent, 1U);
}

TEST_F(packet_socket_test, a_device_without_link_layer_carries_bare_packets) {
  const owned_fd tunnel = open_tunnel_device("tun0");
  if (!tunnel) GTEST_SKIP() << "no tunnels here";
  ASSERT_EQ(std::system("ip link set tun0 up"), 0);
  net_device* dev = alloc_netdev("tun0", ARPHRD_NONE);
  packet_socket port("tun0", link_layer::raw_ip, 1500);
  port.attach(dev);
  const bytes in = packet().ipv4("10.10.0.2", "10.10.0.1").udp(1, 2).payload(9).build();
  ASSERT_EQ(write(tunnel.get(), in.data(), in.size()), static_cast<ssize_t>(in.size()));
  const auto got = receive(port, 1);
  ASSERT_EQ(got.size(), 1U);
  EXPECT_EQ(got[0], in);

  const bytes out = packet().ipv4("10.10.0.1", "10.10.0.2").tcp(1, 2).payload(1460).build();
  send(port, out);
  port.flush();
  // The host's own chatter may come first.
  bytes read_back(2000);
  bool found = false;
  for (ssize_t length = 0; !found;
       found = bytes(read_back.begin(), read_back.begin() + length) == out) {
    length = read(tunnel.get(), read_back.data(), read_back.size());
    ASSERT_GT(length, 0) << "the packet does not come out";
  }
  free_netdev(dev);
}

TEST_F(packet_socket_test, an_interface_that_does_not_fit_is_named_with_the_cure) {
  const auto fault = [](const char* name, link_layer link, u32 mtu) -> std::string {
    try {
      packet_socket socket(name, link, mtu);
    } catch (const port_error& error) {
      return error.what();
    }
    return "none";
  };
  EXPECT_EQ(fault("gone", link_layer::ethernet, 1500),
            "no interface gone on this host; make it or name one that is there");
  EXPECT_EQ(fault("near", link_layer::raw_ip, 1500),
            "interface near is not a point-to-point interface without link layer; name another or "
            "give the device another type");
  EXPECT_EQ(fault("lo", link_layer::ethernet, 1500),
            "interface lo is not an Ethernet interface; name another or give the device another "
            "type");
  EXPECT_EQ(fault("near", link_layer::ethernet, 1501),
            "interface near has an MTU of 1500, the device 1501; raise the one or lower the other");
}

}  // namespace
}  // namespace tarvelo::ports
