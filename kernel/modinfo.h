// SPDX-License-Identifier: GPL-2.0-only
//
// The information section of a module's file: NUL-terminated "key=value" texts. Reads the file
// only; nothing of it runs.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace hosted {

/// The bytes of the section .modinfo. Empty, with one line in `*error`, when the file cannot be
/// read, is not a shared object of this machine's word size, or has no such section.
[[nodiscard]] std::optional<std::string> read_modinfo(const std::string& path, std::string* error);

/// The value of `key` in a section, or nothing.
[[nodiscard]] std::optional<std::string_view> modinfo_value(std::string_view section,
                                                            std::string_view key) noexcept;

}  // namespace hosted
