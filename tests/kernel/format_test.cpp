// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include <string>

#include "kernel/printk.h"

namespace {

template <typename... Args>
std::string formatted(const char* format, Args... args) {
  char text[256];
  const int length = scnprintf_full(text, sizeof text, format, args...);
  EXPECT_EQ(static_cast<std::size_t>(length), std::string(text).size()) << format;
  return text;
}

TEST(Format, PrintsTheKernelsConversions) {
  const u8 v4[] = {192, 168, 1, 2};
  const u8 v6[] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  const u8 mac[] = {2, 0, 0, 0xab, 0, 1};
  const void* none = nullptr;
  EXPECT_EQ(formatted("%pI4", v4), "192.168.1.2");
  EXPECT_EQ(formatted("[%-15pI4][%15pI4]", v4, v4), "[192.168.1.2    ][    192.168.1.2]");
  EXPECT_EQ(formatted("%pI6", v6), "2001:0db8:0000:0000:0000:0000:0000:0001");
  EXPECT_EQ(formatted("%-19pM|", mac), "02:00:00:ab:00:01  |");
  EXPECT_EQ(formatted("(ci %p ipc %p)", none, none), "(ci (null) ipc (null))");
  EXPECT_EQ(formatted("%pI4 %-8p|", none, none), "(null) (null)  |");
  EXPECT_EQ(formatted("%p", reinterpret_cast<const void*>(0x1234)),
            std::string(2 * sizeof(void*) - 4, '0') + "1234");
}

TEST(Format, PrintsCsConversions) {
  EXPECT_EQ(formatted("%5d|%-5d|%05d|%+d", 42, 42, 42, 42), "   42|42   |00042|+42");
  EXPECT_EQ(formatted("%*d|%-*d|%*d", 4, 1, 4, 2, -4, 3), "   1|2   |3   ");
  EXPECT_EQ(formatted("%lu %llx %zu %#x", 7UL, 0xabcULL, std::size_t{9}, 255), "7 abc 9 0xff");
  EXPECT_EQ(formatted("%hhx %hu", 0x1ff, 0x1ffff), "ff 65535");
  EXPECT_EQ(formatted("%s|%.2s|%-4s|%4s|%c", "abc", "abc", "ab", "ab", 'x'), "abc|ab|ab  |  ab|x");
  EXPECT_EQ(formatted("%s", static_cast<const char*>(nullptr)), "(null)");
  EXPECT_EQ(formatted("100%%"), "100%");
  EXPECT_EQ(formatted("%y %n"), "%y %n") << "unknown ones are shown and take no argument";
  EXPECT_EQ(formatted("%"), "%");
}

TEST(Format, NeverWritesBeyondTheBuffer) {
  for (std::size_t size = 0; size < 16; ++size) {
    char text[32];
    std::fill_n(text, sizeof text, '#');
    EXPECT_EQ(scnprintf_full(text, size, "ab%dc%-6s", 123, "xy"), 12);
    const std::string whole = "ab123cxy    ";
    if (size != 0) {
      EXPECT_EQ(std::string(text), whole.substr(0, size - 1));
    }
    EXPECT_EQ(text[size], '#');
  }
}

TEST(Printk, SplitsTheLevelOff) {
  std::string log;
  klog::set_sink(
      [](void* to, klog::level at, const char* text) noexcept {
        *static_cast<std::string*>(to) += std::to_string(static_cast<int>(at)) + ":" + text;
      },
      &log);
  printk(KERN_ERR "bad %d\n", 1);
  printk("plain");
  printk(KERN_INFO "\n");
  klog::set_sink(nullptr, nullptr);
  EXPECT_EQ(log, "3:bad 1\n5:plain6:\n");
}

}  // namespace
