// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/net_text.h"

#include <arpa/inet.h>

#include <array>
#include <cctype>
#include <cstring>
#include <stdexcept>

namespace tarvelo::test {
namespace {

[[noreturn]] void refuse(const char* what, std::string_view text) {
  throw std::invalid_argument(std::string(what) + ": " + std::string(text));
}

u8 hex_digit(char c) {
  if (c >= '0' && c <= '9') return static_cast<u8>(c - '0');
  const int lower = std::tolower(static_cast<unsigned char>(c));
  if (lower >= 'a' && lower <= 'f') return static_cast<u8>(lower - 'a' + 10);
  refuse("not a hexadecimal digit", std::string(1, c));
}

template <typename Address>
Address address_of(int family, std::string_view text) {
  Address address{};
  if (inet_pton(family, std::string(text).c_str(), &address) != 1) refuse("not an address", text);
  return address;
}

template <std::size_t Room>
std::string address_text(int family, const void* address) {
  std::array<char, Room> text{};
  return inet_ntop(family, address, text.data(), Room);
}

}  // namespace

mac mac_of(std::string_view text) {
  constexpr std::size_t mac_text_length = 17;
  if (text.size() != mac_text_length) refuse("not a MAC address", text);
  mac result{};
  for (std::size_t i = 0; i < wire::mac_length; ++i) {
    if (i != 0 && text[3 * i - 1] != ':') refuse("not a MAC address", text);
    result.at[i] = static_cast<u8>(hex_digit(text[3 * i]) << 4 | hex_digit(text[3 * i + 1]));
  }
  return result;
}

u32 ip4(std::string_view text) {
  return address_of<u32>(AF_INET, text);
}

wire::in6_addr ip6(std::string_view text) {
  return address_of<wire::in6_addr>(AF_INET6, text);
}

std::string mac_text(const u8* at) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < wire::mac_length; ++i) {
    if (i != 0) text += ':';
    text += digits[at[i] >> 4];
    text += digits[at[i] & 0x0F];
  }
  return text;
}

std::string ip4_text(u32 raw) {
  return address_text<INET_ADDRSTRLEN>(AF_INET, &raw);
}

std::string ip6_text(const wire::in6_addr& address) {
  return address_text<INET6_ADDRSTRLEN>(AF_INET6, &address);
}

bytes from_hex(std::string_view text) {
  bytes result;
  bool high = true;
  for (const char c : text) {
    if (std::isspace(static_cast<unsigned char>(c)) != 0) continue;
    if (high) {
      result.push_back(static_cast<u8>(hex_digit(c) << 4));
    } else {
      result.back() = static_cast<u8>(result.back() | hex_digit(c));
    }
    high = !high;
  }
  if (!high) refuse("odd number of hexadecimal digits", text);
  return result;
}

}  // namespace tarvelo::test
