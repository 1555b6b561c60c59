// SPDX-License-Identifier: GPL-2.0-only
//
// A TOML file as a plain tree in which every key and value knows its place, so that what reads it
// can point at what it does not like. Only the reading itself knows the TOML library.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "app/input_error.h"

namespace tarvelo::app {

struct document_entry;
struct document_value;

using document_array = std::vector<document_value>;

/// Entries in the order of their keys' names.
struct document_table {
  std::vector<document_entry> entries;
};

/// A value of a kind that no configuration uses: a float, a date.
struct other_value {};

struct document_value {
  text_place at;
  std::variant<other_value, bool, std::int64_t, std::string, document_array, document_table> value;
};

struct document_entry {
  std::string key;
  text_place at;
  document_value value;
};

/// Reads a whole file. Throws input_error with the place of what is not TOML.
[[nodiscard]] document_table read_document(const std::string& path);

/// What a value is, for messages: "a string", "an integer".
[[nodiscard]] const char* kind_name(const document_value& value);

}  // namespace tarvelo::app
