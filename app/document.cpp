// SPDX-License-Identifier: GPL-2.0-only
#include "app/document.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <toml++/toml.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace tarvelo::app {

namespace {

text_place place_of(const toml::source_region& source) {
  return {source.begin.line, source.begin.column};
}

document_value convert(const toml::node& node);

document_table convert_table(const toml::table& table) {
  document_table result;
  for (const auto& [key, node] : table) {
    result.entries.push_back({std::string(key.str()), place_of(key.source()), convert(node)});
  }
  return result;
}

document_value convert(const toml::node& node) {
  document_value result{place_of(node.source()), other_value{}};
  if (const auto* text = node.as_string()) {
    result.value = text->get();
  } else if (const auto* number = node.as_integer()) {
    result.value = number->get();
  } else if (const auto* truth = node.as_boolean()) {
    result.value = truth->get();
  } else if (const auto* array = node.as_array()) {
    document_array items;
    for (const toml::node& item : *array)
      items.push_back(convert(item));
    result.value = std::move(items);
  } else if (const auto* table = node.as_table()) {
    result.value = convert_table(*table);
  }
  return result;
}

/// Far more than any configuration needs; bounds what a device file can make the command swallow.
constexpr std::size_t longest_file = std::size_t{4} << 20;  // bytes

std::string read_file(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
    throw input_error(fmt::format("{}: is a directory; name a configuration file", path));
  }
  std::ifstream file(path, std::ios::binary);
  std::string text(longest_file + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (!file.is_open() || file.bad()) {
    throw input_error(fmt::format("{}: cannot be read: {}; name a configuration file that can be",
                                  path, std::strerror(errno)));
  }
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (text.size() > longest_file) {
    throw input_error(
        fmt::format("{}: longer than {} MiB; name a configuration file", path, longest_file >> 20));
  }
  return text;
}

}  // namespace

document_table read_document(const std::string& path) {
  const std::string text = read_file(path);
  try {
    return convert_table(toml::parse(text, path));
  } catch (const toml::parse_error& error) {
    throw input_error(fmt::format("{}not TOML: {}; correct the syntax",
                                  describe(path, place_of(error.source())), error.description()));
  }
}

const char* kind_name(const document_value& value) {
  static constexpr const char* names[] = {
      "a value of another kind", "true or false", "an integer", "a string", "an array", "a table"};
  return names[value.value.index()];
}

}  // namespace tarvelo::app
