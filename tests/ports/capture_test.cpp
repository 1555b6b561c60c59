// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "ports/capture_port.h"
#include "tests/support/kernel_fixture.h"
#include "tests/support/net_text.h"

namespace tarvelo::ports {
namespace {

using test::bytes;

class capture_test : public test::kernel_test {
 protected:
  capture_test() {
    std::string pattern = (std::filesystem::temp_directory_path() / "capture-XXXXXX").string();
    directory_ = mkdtemp(pattern.data());
  }
  ~capture_test() override { std::filesystem::remove_all(directory_); }

  [[nodiscard]] std::string path(const char* name) const { return directory_ / name; }

  void put(const std::string& file, const bytes& content) const {
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(content.data()),
               static_cast<std::streamsize>(content.size()));
  }
  [[nodiscard]] static bytes get(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  static constexpr s64 late = 0xF000'0000LL * 1'000'000'000 + 1'000;

  /// Two frames of 3 and 60 bytes, at 1.5 s and in the year 2097.
  std::string two_frames(link_layer link = link_layer::ethernet) {
    const std::string file = path("two.pcap");
    capture_writer writer(file, link);
    writer.write(1'500'000'000, bytes{1, 2, 3});
    writer.write(late, bytes(60, 9));
    writer.close();
    return file;
  }

  /// What reading the file to its end throws; empty when nothing.
  static std::string fault_of(const std::string& file, link_layer link = link_layer::ethernet) {
    try {
      capture_reader reader(file, link);
      while (reader.next()) {
      }
    } catch (const capture_error& error) {
      return error.what();
    }
    return {};
  }

  std::filesystem::path directory_;
};

TEST_F(capture_test, what_is_written_is_read_back) {
  for (const link_layer link : {link_layer::ethernet, link_layer::raw_ip}) {
    capture_reader reader(two_frames(link), link);
    const auto first = reader.next();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->time, 1'500'000'000);
    EXPECT_EQ(bytes(first->bytes.begin(), first->bytes.end()), (bytes{1, 2, 3}));
    const auto second = reader.next();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->time, late);
    EXPECT_EQ(second->bytes.size(), 60U);
    EXPECT_FALSE(reader.next());
    EXPECT_FALSE(reader.next());
  }
}

TEST_F(capture_test, the_file_is_the_classic_format_with_microseconds) {
  EXPECT_EQ(get(two_frames()).size(), 24U + (16 + 3) + (16 + 60));
  const bytes head = test::from_hex("d4c3b2a1 0200 0400 00000000 00000000");
  const bytes file = get(two_frames());
  EXPECT_TRUE(std::equal(head.begin(), head.end(), file.begin()));
  EXPECT_EQ(file[20], 1);  // Ethernet
  EXPECT_EQ(file[24], 1);  // seconds
  EXPECT_EQ(get(two_frames(link_layer::raw_ip))[20], 101);
}

TEST_F(capture_test, every_truncation_of_a_capture_is_noticed) {
  const bytes whole = get(two_frames());
  const std::string file = path("cut.pcap");
  for (std::size_t length = 0; length < whole.size(); ++length) {
    put(file, bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
    // Between frames a shorter capture is a good one.
    const bool at_a_boundary = length == 24 || length == 24 + 19;
    const std::string fault = fault_of(file);
    EXPECT_EQ(fault.empty(), at_a_boundary) << length;
    if (!at_a_boundary) {
      EXPECT_EQ(fault.find(file), 0U) << fault;
    }
  }
}

TEST_F(capture_test, faults_name_the_file_the_frame_and_the_cure) {
  bytes damaged = get(two_frames());
  damaged[24 + 19 + 11] = 0x7F;  // the second frame's length
  put(path("damaged.pcap"), damaged);
  put(path("text.pcap"), bytes(100, 'x'));
  EXPECT_EQ(fault_of(path("damaged.pcap")).find(path("damaged.pcap") + ":frame 2: damaged: "), 0U);
  EXPECT_EQ(fault_of(path("text.pcap")).find(path("text.pcap") + ": not a capture file: "), 0U);
  EXPECT_EQ(fault_of(path("none.pcap")),
            path("none.pcap") +
                ": cannot be opened: No such file or directory; name a capture "
                "file that can be read");
  EXPECT_EQ(fault_of(directory_.string()),
            directory_.string() + ": not a regular file; save the capture to a file first");
  EXPECT_EQ(fault_of(two_frames(), link_layer::raw_ip),
            path("two.pcap") + ": link type EN10MB does not fit; capture bare IP packets (RAW)");
  EXPECT_EQ(fault_of(two_frames(link_layer::raw_ip)),
            path("two.pcap") + ": link type RAW does not fit; capture Ethernet frames (EN10MB)");
}

TEST_F(capture_test, a_full_disk_is_an_error) {
  capture_writer writer("/dev/full", link_layer::ethernet);
  writer.write(0, bytes(60, 0));
  EXPECT_THROW(writer.close(), capture_error);
}

/// Stamps with what the test says.
struct fixed_stamp final : transmit_observer {
  s64 sent(const net_device*, const sk_buff*) noexcept override { return stamp; }
  s64 stamp = 0;
};

TEST_F(capture_test, a_port_gives_frames_as_the_router_wants_them) {
  const std::string input = path("in.pcap");
  {
    capture_writer writer(input, link_layer::ethernet);
    bytes tagged(60, 0);
    tagged[12] = 0x81;
    tagged[14] = 0xA0;  // priority 5
    tagged[15] = 0x07;
    writer.write(5'000, tagged);
    writer.write(4'000, bytes{});  // stamped before its forerunner, and empty
    writer.write(6'000, bytes(max_frame_length + 1, 1));
    writer.close();
  }
  net_device* dev = alloc_netdev("lan0", ARPHRD_ETHER);
  fixed_stamp stamp;
  {
    capture_port port(input, path("out.pcap"), link_layer::ethernet, stamp);
    port.attach(dev);
    std::vector<sk_buff*> frames;
    EXPECT_EQ(port.next_time(), 5'000);
    ASSERT_TRUE(port.receive(frames));
    EXPECT_EQ(port.next_time(), 5'000);
    ASSERT_TRUE(port.receive(frames));
    EXPECT_EQ(port.next_time(), 6'000);
    EXPECT_TRUE(port.receive(frames));  // lost: longer than any buffer
    EXPECT_FALSE(port.receive(frames));
    EXPECT_EQ(port.statistics().receive_errors, 1U);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[0]->dev, dev);
    EXPECT_EQ(frames[0]->priority, 5U);
    EXPECT_EQ(frames[0]->len, 60U);
    EXPECT_GE(skb_headroom(frames[0]), 128U);
    EXPECT_EQ(frames[1]->len, 0U);

    stamp.stamp = 7'000'000;
    for (sk_buff* skb : frames)
      port.transmit(skb);
    port.close();
  }
  capture_reader reader(path("out.pcap"), link_layer::ethernet);
  const auto sent = reader.next();
  ASSERT_TRUE(sent);
  EXPECT_EQ(sent->time, 7'000'000);
  EXPECT_EQ(sent->bytes.size(), 60U);
  free_netdev(dev);
}

}  // namespace
}  // namespace tarvelo::ports
