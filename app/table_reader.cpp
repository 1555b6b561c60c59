// SPDX-License-Identifier: GPL-2.0-only
#include "app/table_reader.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

namespace tarvelo::app {

text_place item_places::of(std::string_view key, std::size_t index) const {
  const auto found = values.find(key);
  if (found == values.end() || found->second.empty()) return item;
  return found->second[std::min(index, found->second.size() - 1)];
}

table_reader::table_reader(const std::string& file, std::string title, text_place at,
                           const document_table& table)
    : file_(file), title_(std::move(title)), table_(table) {
  places_.item = at;
}

std::string table_reader::full_name(std::string_view key) const {
  return title_.empty() ? std::string(key) : fmt::format("{}.{}", title_, key);
}

void table_reader::fail_at(text_place at, std::string_view key, std::string_view wrong,
                           std::string_view cure) const {
  throw input_error(fmt::format("{}{} ({}); {}", describe(file_, at), wrong, full_name(key), cure));
}

void table_reader::fail(std::string_view key, std::string_view wrong, std::string_view cure,
                        std::size_t index) const {
  fail_at(places_.of(key, index), key, wrong, cure);
}

void table_reader::wrong_kind(std::string_view key, const document_value& value,
                              std::string_view wanted) const {
  fail_at(value.at, key, fmt::format("{} where {} belongs", kind_name(value), wanted),
          fmt::format("write {}", wanted));
}

const document_value* table_reader::find(std::string_view key) {
  asked_.emplace_back(key);
  for (const document_entry& entry : table_.entries) {
    if (entry.key != key) continue;
    std::vector<text_place>& places = places_.values[entry.key];
    if (const auto* items = std::get_if<document_array>(&entry.value.value)) {
      for (const document_value& item : *items)
        places.push_back(item.at);
    }
    if (places.empty()) places.push_back(entry.value.at);
    return &entry.value;
  }
  return nullptr;
}

const document_value& table_reader::require(std::string_view key, std::string_view cure) {
  const document_value* value = find(key);
  if (value == nullptr) fail_at(places_.item, key, "a key is missing", cure);
  return *value;
}

std::string table_reader::string(std::string_view key, std::string_view cure) {
  const document_value& value = require(key, cure);
  const auto* text = std::get_if<std::string>(&value.value);
  if (text == nullptr) wrong_kind(key, value, "a string");
  return *text;
}

std::optional<std::string> table_reader::optional_string(std::string_view key) {
  const document_value* value = find(key);
  if (value == nullptr) return std::nullopt;
  const auto* text = std::get_if<std::string>(&value->value);
  if (text == nullptr) wrong_kind(key, *value, "a string");
  return *text;
}

u32 table_reader::checked_number(std::string_view key, const document_value& value, u32 least,
                                 u32 most) const {
  const auto* number = std::get_if<std::int64_t>(&value.value);
  if (number == nullptr) wrong_kind(key, value, "an integer");
  if (*number < least || *number > most) {
    fail_at(value.at, key, fmt::format("{} is out of range", *number),
            fmt::format("write a number from {} to {}", least, most));
  }
  return static_cast<u32>(*number);
}

u32 table_reader::number(std::string_view key, u32 least, u32 most) {
  const document_value& value =
      require(key, fmt::format("give it a number from {} to {}", least, most));
  return checked_number(key, value, least, most);
}

u32 table_reader::number_or(std::string_view key, u32 otherwise, u32 least, u32 most) {
  const document_value* value = find(key);
  return value == nullptr ? otherwise : checked_number(key, *value, least, most);
}

bool table_reader::truth_or(std::string_view key, bool otherwise) {
  const document_value* value = find(key);
  if (value == nullptr) return otherwise;
  const bool* truth = std::get_if<bool>(&value->value);
  if (truth == nullptr) wrong_kind(key, *value, "true or false");
  return *truth;
}

std::vector<std::string> table_reader::strings(std::string_view key) {
  const document_value* value = find(key);
  if (value == nullptr) return {};
  const auto* items = std::get_if<document_array>(&value->value);
  if (items == nullptr) wrong_kind(key, *value, "an array of strings");
  std::vector<std::string> result;
  for (const document_value& item : *items) {
    const auto* text = std::get_if<std::string>(&item.value);
    if (text == nullptr) wrong_kind(key, item, "a string");
    result.push_back(*text);
  }
  return result;
}

const document_table* table_reader::table(std::string_view key) {
  const document_value* value = find(key);
  if (value == nullptr) return nullptr;
  const auto* result = std::get_if<document_table>(&value->value);
  if (result == nullptr) wrong_kind(key, *value, "a table");
  return result;
}

std::vector<const document_value*> table_reader::tables(std::string_view key) {
  const document_value* value = find(key);
  if (value == nullptr) return {};
  const std::string wanted = fmt::format("[[{}]]", full_name(key));
  const auto* items = std::get_if<document_array>(&value->value);
  if (items == nullptr) wrong_kind(key, *value, wanted);
  std::vector<const document_value*> result;
  for (const document_value& item : *items) {
    if (!std::holds_alternative<document_table>(item.value)) wrong_kind(key, item, wanted);
    result.push_back(&item);
  }
  return result;
}

void table_reader::finish() const {
  const auto unknown = [this](const document_entry& entry) {
    return std::find(asked_.begin(), asked_.end(), entry.key) == asked_.end();
  };
  const document_entry* first = nullptr;
  for (const document_entry& entry : table_.entries) {
    if (!unknown(entry)) continue;
    const bool earlier = first == nullptr || entry.at.line < first->at.line ||
                         (entry.at.line == first->at.line && entry.at.column < first->at.column);
    if (earlier) first = &entry;
  }
  if (first == nullptr) return;
  fail_at(first->at, first->key, "unknown key",
          fmt::format("take it out or write one of {}", fmt::join(asked_, ", ")));
}

}  // namespace tarvelo::app
