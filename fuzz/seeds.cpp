// SPDX-License-Identifier: GPL-2.0-only
//
// Writes the seeds that are made of frames: fuzz_seeds DIRECTORY makes DIRECTORY/frame and
// DIRECTORY/events. What is plain text lies in fuzz/corpus.
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "fuzz/conversations.h"
#include "fuzz/input_bytes.h"

namespace {

using namespace tarvelo::fuzz;
namespace fs = std::filesystem;

void write(const fs::path& file, const tarvelo::test::bytes& bytes) {
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

u8 number_of(const std::string& port) {
  u8 number = 0;
  while (port != port_names[number])
    ++number;
  return number;
}

void write_frames(const fs::path& directory) {
  unsigned n = 0;
  const auto add = [&](const sent_frame& frame) {
    tarvelo::test::bytes seed = {number_of(frame.port)};
    seed.insert(seed.end(), frame.bytes.begin(), frame.bytes.end());
    write(directory / std::to_string(n++), seed);
  };
  for (const conversation& c : conversations()) {
    add(c.there);
    add(c.back);
    for (const sent_frame& frame : c.opening)
      add(frame);
  }
  for (const sent_frame& frame : fragments())
    add(frame);
}

/// Every event once, each with a few choices.
void write_events(const fs::path& directory) {
  constexpr u8 events = 20;
  for (u8 event = 0; event < events; ++event) {
    write(directory / std::to_string(event),
          {event, 1, 2, 3, 0, 1, 1, event, 0, 0, 2, 5, 1, 77, 1, event, 4, 1, 8, 4, 0, 3, 0});
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  const fs::path root = argv[1];
  fs::create_directories(root / "frame");
  fs::create_directories(root / "events");
  write_frames(root / "frame");
  write_events(root / "events");
  return 0;
}
