// SPDX-License-Identifier: GPL-2.0-only
#include "app/address_text.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace tarvelo::app {

namespace {

constexpr u32 ipv4_bits = 32;
constexpr u32 ipv6_bits = 128;

/// A decimal number without sign or leading zero.
std::optional<u32> parse_number(std::string_view text, u32 most) {
  const bool leading_zero = text.size() > 1 && text.front() == '0';
  u32 value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (leading_zero || error != std::errc{} || stop != end || value > most) return std::nullopt;
  return value;
}

}  // namespace

std::optional<u32> parse_ipv4(const std::string& text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return address.s_addr;
}

std::optional<wire::in6_addr> parse_ipv6(const std::string& text) {
  wire::in6_addr address{};
  if (inet_pton(AF_INET6, text.c_str(), &address) != 1) return std::nullopt;
  return address;
}

std::optional<stack::ip_address> parse_address(const std::string& text) {
  if (const auto v4 = parse_ipv4(text)) return stack::ip_address{*v4};
  if (const auto v6 = parse_ipv6(text)) return stack::ip_address{*v6};
  return std::nullopt;
}

std::optional<stack::ip_prefix> parse_prefix(const std::string& text) {
  const auto slash = text.find('/');
  if (slash == std::string::npos) return std::nullopt;
  const auto address = parse_address(text.substr(0, slash));
  if (!address) return std::nullopt;
  const bool is_v4 = std::holds_alternative<u32>(*address);
  const auto length =
      parse_number(std::string_view(text).substr(slash + 1), is_v4 ? ipv4_bits : ipv6_bits);
  if (!length) return std::nullopt;
  const auto bits = static_cast<u8>(*length);
  if (is_v4) return stack::ipv4_prefix{std::get<u32>(*address), bits};
  return stack::ipv6_prefix{std::get<wire::in6_addr>(*address), bits};
}

std::optional<stack::mac_address> parse_mac(const std::string& text) {
  constexpr std::size_t digits = 2;
  constexpr std::size_t step = digits + 1;
  if (text.size() != wire::mac_length * step - 1) return std::nullopt;
  stack::mac_address mac{};
  for (std::size_t i = 0; i < wire::mac_length; ++i) {
    const char* start = text.data() + i * step;
    const auto [stop, error] = std::from_chars(start, start + digits, mac.bytes[i], 16);
    if (error != std::errc{} || stop != start + digits) return std::nullopt;
    if (i + 1 < wire::mac_length && *stop != ':') return std::nullopt;
  }
  return mac;
}

std::optional<ipv4_endpoint> parse_endpoint(const std::string& text) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) return std::nullopt;
  const auto address = parse_ipv4(text.substr(0, colon));
  const auto port = parse_number(std::string_view(text).substr(colon + 1), 65535);
  if (!address || !port || *port == 0) return std::nullopt;
  return ipv4_endpoint{*address, static_cast<u16>(*port)};
}

std::string to_text(const stack::ip_address& address) {
  char text[INET6_ADDRSTRLEN] = "";
  if (const u32* v4 = std::get_if<u32>(&address)) {
    inet_ntop(AF_INET, v4, text, sizeof text);
  } else {
    inet_ntop(AF_INET6, &std::get<wire::in6_addr>(address), text, sizeof text);
  }
  return text;
}

std::string to_text(const stack::ip_prefix& prefix) {
  return std::visit(
      [](const auto& p) {
        return fmt::format("{}/{}", to_text(stack::ip_address{p.address}), p.length);
      },
      prefix);
}

}  // namespace tarvelo::app
