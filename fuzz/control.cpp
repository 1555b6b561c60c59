// SPDX-License-Identifier: GPL-2.0-only
//
// Any text, written to any control file in pieces of any size: the first byte is the file, the
// second the size of the pieces. All files can be read afterwards.
#include "fuzz/fuzzed_router.h"
#include "fuzz/input_bytes.h"
#include "kernel/proc_tree.h"

namespace {

void write_in_pieces(const std::string& path, std::span<const u8> text, std::size_t piece) {
  int error = 0;
  const auto file = proc::open_file::open(path, &error);
  if (file == nullptr) return;
  for (; !text.empty(); text = text.subspan(std::min(piece, text.size()))) {
    const std::span<const u8> now = text.first(std::min(piece, text.size()));
    const ssize_type result = file->write(reinterpret_cast<const char*>(now.data()), now.size());
    if (result > static_cast<ssize_type>(now.size())) {
      tarvelo::fuzz::fail("more was taken than was written");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  using namespace tarvelo::fuzz;
  constexpr std::size_t unit = 33;
  input_bytes input(data, size);
  fuzzed_router router;
  router.load_module();
  const std::vector<proc::entry_info> files = proc::list("vok");
  const std::string path = "vok/" + input.one_of(files).name;
  const std::size_t piece = 1 + unit * input.byte();
  write_in_pieces(path, input.bytes(), piece);
  for (const proc::entry_info& file : files) {
    std::string text;
    int error = 0;
    if (!proc::read_all("vok/" + file.name, &text, &error)) fail(file.name + " cannot be read");
  }
  return 0;
}
