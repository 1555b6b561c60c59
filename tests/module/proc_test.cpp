// SPDX-License-Identifier: GPL-2.0-only
//
// The control files, by the text that a user reads and writes.
#include "kernel/errno.h"
#include "kernel/proc_tree.h"
#include "module/brc/table.h"
#include "module/core/counters.h"
#include "module/ipc/table.h"
#include "module/ipv6/table.h"
#include "module/proc/registration.h"
#include "tests/module/module_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 udp = wire::ip_protocol::udp;

class control_files : public module_scene {
 protected:
  [[nodiscard]] static ssize_type write(const std::string& name, std::string_view text) {
    return proc::write_all("vok/" + name, text);
  }

  /// Puts an entry straight into the table.
  static ipc_entry* insert(const flow_key& key, net_device* sendif, u32 flags) {
    auto* entry = static_cast<ipc_entry*>(
        kzalloc(static_cast<std::size_t>(ipc_entry_size::no_pppoe), GFP_KERNEL));
    entry->sip = key.sip;
    entry->dip = key.dip;
    entry->sport = key.sport;
    entry->dport = key.dport;
    entry->proto = key.proto;
    entry->sendif = sendif;
    entry->flags = flags;
    spin_lock_bh(kcih->ipc_lock);
    insert_flow(kcih, entry);
    spin_unlock_bh(kcih->ipc_lock);
    return entry;
  }

  /// Reads a file with buffers of `piece` bytes.
  static std::string read_in_pieces(const char* path, std::size_t piece) {
    int error = 0;
    auto file = proc::open_file::open(path, &error);
    EXPECT_NE(file, nullptr) << error;
    std::string text, buffer(piece, '\0');
    for (ssize_type n; (n = file->read(buffer.data(), piece)) > 0;) {
      text.append(buffer, 0, static_cast<std::size_t>(n));
    }
    return text;
  }
};

TEST_F(control_files, are_ten_with_their_modes) {
  struct {
    const char* name;
    u16 mode;
  } const rows[] = {{"enable", 0644},
                    {"slow_xmit_enable", 0644},
                    {"statistics_info", 0644},
                    {"version", 0644},
                    {"ipc_count", 0644},
                    {"ipc_info", 0440},
                    {"ipc_v6_count", 0644},
                    {"ipc_v6_info", 0440},
                    {"statistics_forward_ipv6_packet_num", 0644},
                    {"brc_info", 0440}};
  const auto entries = proc::list("vok");
  ASSERT_EQ(entries.size(), std::size(rows));
  for (std::size_t i = 0; i < entries.size(); ++i) {
    EXPECT_EQ(entries[i].name, rows[i].name);
    EXPECT_EQ(entries[i].mode, rows[i].mode) << rows[i].name;
  }
}

TEST_F(control_files, say_what_is_after_loading) {
  EXPECT_EQ(control_text("enable"), "1:\n");
  EXPECT_EQ(control_text("slow_xmit_enable"), "0:\n");
  EXPECT_EQ(control_text("statistics_info"),
            "ethernet_packet=0,bridge_packet=0,bridge_pool_packet=0,ip_packet=0,"
            "ip_pool_packet=0\n");
  EXPECT_EQ(control_text("ipc_count"), "0\n");
  EXPECT_EQ(control_text("ipc_info"), "total ipcp: 0\n");
  EXPECT_EQ(control_text("ipc_v6_count"), "0\n");
  EXPECT_EQ(control_text("ipc_v6_info"), "total ipcp: 0\n");
  EXPECT_EQ(control_text("brc_info"), "");
  EXPECT_EQ(control_text("statistics_forward_ipv6_packet_num"),
            "ethernet_v6_packet=0, ip_v6_packet=0\n");
  const std::string version = control_text("version");
  EXPECT_EQ(version.rfind("tarvelo version: 2.0-6846, build date: ", 0), 0U) << version;
  EXPECT_EQ(version.size(), std::string("tarvelo version: 2.0-6846, build date: "
                                        "Apr  8 2021 16:54:58\n")
                                .size());
}

struct write_row {
  const char* file;
  std::string text;
  const char* shown;
};

TEST_F(control_files, take_what_matches_and_pass_over_the_rest) {
  const std::string all = "ethernet_packet=1,bridge_packet=2,bridge_pool_packet=3,ip_packet=4,";
  const write_row rows[] = {
      {"enable", "0", "0:\n"},
      {"enable", "256", "0:\n"},
      {"enable", "-1", "255:\n"},
      {"enable", "abc", "255:\n"},
      {"enable", "", "255:\n"},
      {"enable", " 1 2\n", "1:\n"},
      {"slow_xmit_enable", "-7\n", "-7:\n"},
      {"slow_xmit_enable", "off", "-7:\n"},
      {"slow_xmit_enable", std::string(4095, ' ') + "3", "3:\n"},
      {"statistics_info", all + "ip_pool_packet=5\n",
       "ethernet_packet=1,bridge_packet=2,bridge_pool_packet=3,ip_packet=4,ip_pool_packet=5\n"},
      {"statistics_info", all,
       "ethernet_packet=1,bridge_packet=2,bridge_pool_packet=3,ip_packet=4,ip_pool_packet=5\n"},
      {"statistics_forward_ipv6_packet_num", "ethernet_packet=5,ip_v6_packet 7",
       "ethernet_v6_packet=5, ip_v6_packet=7\n"},
      {"statistics_forward_ipv6_packet_num", "ethernet_packet=6,ip_v6_packet8",
       "ethernet_v6_packet=6, ip_v6_packet=8\n"},
      {"statistics_forward_ipv6_packet_num", "ethernet_packet=1,ip_v6_packet=2",
       "ethernet_v6_packet=6, ip_v6_packet=8\n"},
      {"statistics_forward_ipv6_packet_num", "ethernet_v6_packet=1, ip_v6_packet=2",
       "ethernet_v6_packet=6, ip_v6_packet=8\n"},
  };
  for (const write_row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.file << " '" << row.text << "'");
    EXPECT_EQ(write(row.file, row.text), static_cast<ssize_type>(row.text.size()));
    EXPECT_EQ(control_text(row.file), row.shown);
  }
  EXPECT_EQ(write("version", "1"), -EIO);
}

TEST_F(control_files, refuse_writes_that_cannot_be_taken) {
  const char* const parsers[][2] = {
      {"enable", "_vok_proc_write_enable"},
      {"slow_xmit_enable", "_vok_proc_write_slow_xmit_enable"},
      {"statistics_info", "_vok_proc_write_statistics_info"},
      {"statistics_forward_ipv6_packet_num",
       "_vok_proc_write_statistics_forward_ipv6_packet_num 677 kmalloc"},
  };
  for (const auto& [file, parser] : parsers) {
    SCOPED_TRACE(file);
    int error = 0;
    auto open = proc::open_file::open(std::string("vok/") + file, &error);
    ASSERT_NE(open, nullptr);
    const std::string text(4097, '0');
    EXPECT_EQ(open->write(text.data(), 4097), -ENOMEM);
    EXPECT_EQ(log.take(),
              (std::vector<log_line>{{klog::level::error, "user write proc count > 4096\n"}}));
    fault::fail_allocation(1);
    EXPECT_EQ(open->write("0", 1), -ENOMEM);
    fault::fail_allocation(0);
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].at, klog::level::error);
    EXPECT_EQ(lines[0].text.rfind(parser, 0), 0U) << lines[0].text;

    fault::fail_user_copies(true);
    EXPECT_EQ(open->write("0", 1), -EFAULT);
    fault::fail_user_copies(false);
    EXPECT_EQ(log.take(), (std::vector<log_line>{{klog::level::error, "copy_from_user failed\n"}}));
  }
  EXPECT_EQ(control_text("enable"), "1:\n");
}

TEST_F(control_files, list_connections) {
  ipc_entry* entry = insert({ip4("192.168.1.2"), ip4("198.51.100.7"), wire::htons(40000),
                             wire::htons(80), wire::ip_protocol::tcp},
                            wan, ipc_flag::snat | ipc_flag::dnat);
  const mac dmac = mac_of("00:1a:2b:3c:4d:5e");
  std::copy(std::begin(dmac.at), std::end(dmac.at), entry->dmac);
  entry->natip = ip4("10.0.0.1");
  entry->natp = wire::htons(8080);
  insert({0, 0, 0, 0, udp}, nullptr, ipc_flag::snat);
  EXPECT_EQ(control_text("ipc_count"), "2\n");
  EXPECT_EQ(control_text("ipc_info"),
            "total ipcp: 2\n"
            "1      udp   17  sip=0.0.0.0         dip=0.0.0.0         sport=0     dport=0     "
            "sendif=undef    SNAT  natip=0.0.0.0         natp=0     smac=00:00:00:00:00:00 "
            "dmac=00:00:00:00:00:00 \n"
            "2      tcp   6   sip=192.168.1.2     dip=198.51.100.7    sport=40000 dport=80    "
            "sendif=wan0     DNAT  natip=10.0.0.1        natp=8080  smac=00:00:00:00:00:00 "
            "dmac=00:1a:2b:3c:4d:5e \n");
}

TEST_F(control_files, list_bridged_hosts) {
  const struct {
    u8 last_byte;
    tag_mode mode;
    u16 vid;
    net_device* sendif;
  } hosts[] = {
      {0, tag_mode::untag, 0, lan}, {1, tag_mode::tag, 7, wan}, {2, tag_mode{0}, 0, nullptr}};
  for (const auto& h : hosts) {
    ::brc e = {};
    e.dmac[0] = 2;
    e.dmac[5] = h.last_byte;
    e.bridgeID = 3;
    e.VLANID = h.vid;
    e.tag_mode = static_cast<u8>(h.mode);
    e.sendif = h.sendif;
    ASSERT_EQ(_vok_brc_add(kcih, &e), 0);
  }
  EXPECT_EQ(control_text("brc_info"),
            "1       dmac=02:00:00:00:00:00 sendif=lan0     bridgeID=3  VLANID=0     UNTAG\n"
            "2       dmac=02:00:00:00:00:01 sendif=wan0     bridgeID=3  VLANID=7     TAG  \n"
            "3       dmac=02:00:00:00:00:02 sendif=undef    bridgeID=3  VLANID=0     undef\n");
}

TEST_F(control_files, list_ipv6_connections) {
  auto* entry = static_cast<ipc_v6_entry*>(
      kzalloc(static_cast<std::size_t>(ipc_v6_entry_size::no_pppoe), GFP_KERNEL));
  const auto source = ip6("2001:db8::1"), destination = ip6("2001:db8::2");
  std::copy(std::begin(source.bytes), std::end(source.bytes), entry->sip);
  std::copy(std::begin(destination.bytes), std::end(destination.bytes), entry->dip);
  entry->sport = wire::htons(1234);
  entry->dport = wire::htons(80);
  entry->proto = wire::ip_protocol::tcp;
  kcih->ipc_v6[0] = entry;
  kcih->ipc_v6_count = 1;
  EXPECT_EQ(control_text("ipc_v6_info"),
            "total ipcp: 1\n"
            "1      tcp   6   sip=2001:0db8:0000:0000:0000:0000:0000:0001 "
            "dip=2001:0db8:0000:0000:0000:0000:0000:0002 sport=1234  dport=80    "
            "sendif=undef   smac=00:00:00:00:00:00 dmac=00:00:00:00:00:00 \n");
  EXPECT_EQ(control_text("ipc_v6_count"), "1\n");
}

/// Whatever the reader's buffer, every entry comes once and the numbers have no gap.
TEST_F(control_files, listings_do_not_depend_on_the_reads) {
  constexpr u32 entries = 300;
  for (u32 i = 0; i < entries; ++i)
    insert({i * 7, 0, 0, 0, udp}, lan, 0);
  const std::string whole = read_in_pieces("vok/ipc_info", 1 << 20);
  for (const std::size_t piece : {1U, 100U, 4096U, 5000U}) {
    EXPECT_EQ(read_in_pieces("vok/ipc_info", piece), whole) << piece;
  }
  EXPECT_NE(whole.find("\n300    udp"), std::string::npos);
  EXPECT_EQ(whole.find("\n301 "), std::string::npos);
}

TEST_F(control_files, a_listing_pins_the_module_and_fails_without_memory) {
  int error = 0;
  auto open = proc::open_file::open("vok/ipc_info", &error);
  ASSERT_NE(open, nullptr);
  EXPECT_FALSE(module_->unload());
  open.reset();
  for (u32 nth = 1;; ++nth) {
    fault::fail_allocation(nth);
    auto file = proc::open_file::open("vok/brc_info", &error);
    const bool fired = fault::fired();
    fault::fail_allocation(0);
    if (!fired) break;
    EXPECT_EQ(file, nullptr);
    EXPECT_EQ(error, -ENOMEM);
  }
}

TEST_F(control_files, without_a_handle) {
  vok_handle* handle = kcih;
  kcih = nullptr;
  EXPECT_EQ(control_text("enable"), "");
  EXPECT_EQ(write("enable", "0"), -ENODEV);
  EXPECT_EQ(control_text("ipc_count"), "-2\n");
  EXPECT_EQ(control_text("ipc_v6_count"), "-2\n");
  EXPECT_EQ(control_text("ipc_info"), "total ipcp: -2\n");
  EXPECT_EQ(control_text("ipc_v6_info"), "total ipcp: -2\n");
  EXPECT_EQ(control_text("brc_info"), "");
  kcih = handle;
  EXPECT_EQ(control_text("enable"), "1:\n");
  const auto lines = log.take_text();
  ASSERT_GE(lines.size(), 4U);
  EXPECT_EQ(lines[0], "_vok_ipc_count_get: Invalid input (ci (null))");
  EXPECT_EQ(lines[1], "_vok_ipc_v6_count_get: Invalid input (ci (null))");
}

TEST_F(control_files, others_hang_their_own_below) {
  static const file_operations nothing = {};
  const vok_proc_entry rows[] = {{"first", 0600, 0, &nothing}, {"skipped", 0600, 0, nullptr}};
  proc_dir_entry* dir = kcih->_vok_register_proc_filesystem_entry(kcih, rows, 2, "extra");
  ASSERT_NE(dir, nullptr);
  const auto entries = proc::list("vok/extra");
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].name, "first");
  EXPECT_EQ(entries[0].mode, 0600);
  EXPECT_TRUE(log.take().empty());

  EXPECT_EQ(kcih->_vok_register_proc_filesystem_entry(kcih, rows, 2, nullptr), nullptr);
  kcih->_vok_unregister_proc_filesystem_entry(kcih, rows, 2, nullptr, dir);
  kcih->_vok_unregister_proc_filesystem_entry(kcih, rows, 2, "extra", nullptr);
  EXPECT_EQ(proc::list("vok/extra").size(), 1U);
  EXPECT_EQ(
      log.take(),
      (std::vector<log_line>{
          {klog::level::normal, "the vok root dir is null or parent name is null, create failed\n"},
          {klog::level::error,
           "the parent name is null or the parent dir is null, unregister failed\n"},
          {klog::level::error,
           "the parent name is null or the parent dir is null, unregister failed\n"}}));

  kcih->_vok_unregister_proc_filesystem_entry(kcih, rows, 2, "extra", dir);
  EXPECT_EQ(proc::list("vok").size(), 10U);

  dir = kcih->_vok_register_proc_filesystem_entry(kcih, rows, -1, "empty");
  ASSERT_NE(dir, nullptr);
  EXPECT_TRUE(proc::list("vok/empty").empty());
  kcih->_vok_unregister_proc_filesystem_entry(kcih, rows, 0, "empty", dir);
}

}  // namespace
}  // namespace tarvelo::test
