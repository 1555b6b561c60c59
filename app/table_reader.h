// SPDX-License-Identifier: GPL-2.0-only
//
// Takes one table of a document apart, key by key: each getter checks the kind and range of its
// key's value and names the key as the user would write it ("device.mtu"). What nobody has asked
// for by the time of finish() is an unknown key.
//
// Every fault throws input_error with the place. While reading, the places of keys and values are
// noted, for the checks that come when everything has been read.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/document.h"
#include "kernel/types.h"

namespace tarvelo::app {

/// Where one item of the configuration, and its values, were written.
struct item_places {
  text_place item;
  std::map<std::string, std::vector<text_place>, std::less<>>
      values;  ///< by key; of an array, each

  /// The place of a value, else of the whole item.
  [[nodiscard]] text_place of(std::string_view key, std::size_t index = 0) const;
};

class table_reader {
 public:
  /// `title` is the table's name in messages, empty at the top.
  table_reader(const std::string& file, std::string title, text_place at,
               const document_table& table);

  /// Null when the key is not there.
  [[nodiscard]] const document_value* find(std::string_view key);
  [[nodiscard]] const document_value& require(std::string_view key, std::string_view cure);

  [[nodiscard]] std::string string(std::string_view key, std::string_view cure);
  [[nodiscard]] std::optional<std::string> optional_string(std::string_view key);
  [[nodiscard]] u32 number(std::string_view key, u32 least, u32 most);
  [[nodiscard]] u32 number_or(std::string_view key, u32 otherwise, u32 least, u32 most);
  [[nodiscard]] bool truth_or(std::string_view key, bool otherwise);
  /// Empty when the key is not there.
  [[nodiscard]] std::vector<std::string> strings(std::string_view key);
  [[nodiscard]] const document_table* table(std::string_view key);
  /// The tables of an array of tables; empty when the key is not there.
  [[nodiscard]] std::vector<const document_value*> tables(std::string_view key);

  /// Throws at the first key that was not asked for.
  void finish() const;

  [[noreturn]] void fail(std::string_view key, std::string_view wrong, std::string_view cure,
                         std::size_t index = 0) const;
  [[noreturn]] void fail_at(text_place at, std::string_view key, std::string_view wrong,
                            std::string_view cure) const;

  [[nodiscard]] const item_places& places() const noexcept { return places_; }
  [[nodiscard]] std::string full_name(std::string_view key) const;

 private:
  [[noreturn]] void wrong_kind(std::string_view key, const document_value& value,
                               std::string_view wanted) const;
  [[nodiscard]] u32 checked_number(std::string_view key, const document_value& value, u32 least,
                                   u32 most) const;

  const std::string& file_;
  std::string title_;
  const document_table& table_;
  std::vector<std::string> asked_;
  item_places places_;
};

}  // namespace tarvelo::app
