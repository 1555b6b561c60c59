// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/modinfo.h"

#include <elf.h>
#include <link.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

namespace hosted {

namespace {

using elf_header = ElfW(Ehdr);
using elf_section = ElfW(Shdr);

constexpr unsigned char own_class = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
constexpr std::string_view section_name = ".modinfo";

/// A record at `offset` of the file, if all of it is there.
template <typename Record>
std::optional<Record> record_at(const std::string& image, std::uint64_t offset) {
  if (offset > image.size() || image.size() - offset < sizeof(Record)) return std::nullopt;
  Record record;
  std::memcpy(&record, image.data() + offset, sizeof record);
  return record;
}

std::optional<std::string_view> bytes_of(const std::string& image, const elf_section& section) {
  if (section.sh_offset > image.size() || image.size() - section.sh_offset < section.sh_size) {
    return std::nullopt;
  }
  return std::string_view(image).substr(section.sh_offset, section.sh_size);
}

std::optional<std::string_view> find_section(const std::string& image, const elf_header& header) {
  const auto section = [&](unsigned index) {
    return record_at<elf_section>(image,
                                  header.e_shoff + std::uint64_t{index} * sizeof(elf_section));
  };
  const auto name_section = section(header.e_shstrndx);
  const auto names = name_section ? bytes_of(image, *name_section) : std::nullopt;
  if (!names) return std::nullopt;
  for (unsigned i = 0; i < header.e_shnum; ++i) {
    const auto candidate = section(i);
    if (!candidate || candidate->sh_name >= names->size()) continue;
    const std::string_view name = names->substr(candidate->sh_name);
    if (name.substr(0, name.find('\0')) == section_name) return bytes_of(image, *candidate);
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> read_modinfo(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = path + ": cannot open the module: " + std::strerror(errno);
    return std::nullopt;
  }
  const std::string image{std::istreambuf_iterator<char>(in), {}};
  const auto header = record_at<elf_header>(image, 0);
  if (!header || std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 ||
      header->e_ident[EI_CLASS] != own_class || header->e_type != ET_DYN) {
    *error = path + ": not a module of this machine";
    return std::nullopt;
  }
  const auto section = find_section(image, *header);
  if (!section) {
    *error = path + ": no module information";
    return std::nullopt;
  }
  return std::string(*section);
}

std::optional<std::string_view> modinfo_value(std::string_view section,
                                              std::string_view key) noexcept {
  while (!section.empty()) {
    const std::size_t end = section.find('\0');
    const std::string_view entry = section.substr(0, end);
    if (entry.size() > key.size() && entry[key.size()] == '=' && entry.starts_with(key)) {
      return entry.substr(key.size() + 1);
    }
    if (end == std::string_view::npos) break;
    section.remove_prefix(end + 1);
  }
  return std::nullopt;
}

}  // namespace hosted
