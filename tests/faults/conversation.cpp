// SPDX-License-Identifier: GPL-2.0-only
#include "tests/faults/conversation.h"

#include <algorithm>
#include <filesystem>

#include "app/replay_session.h"
#include "ports/capture_file.h"

namespace tarvelo::test {

std::string test_name(const char* conversation) {
  std::string name = conversation;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

int reassembled_frames(const char* conversation) {
  constexpr int longest_datagram = 8;
  return std::string_view(conversation).starts_with("fragments") ? longest_datagram : 0;
}

conversation read_conversation(const std::string& name) {
  const std::filesystem::path folder = std::filesystem::path(CONVERSATIONS) / name;
  const std::filesystem::path routers = ROUTERS;
  conversation result{app::load_config(routers / (name + ".toml")), {}};
  std::vector<std::pair<s64, arriving_frame>> frames;
  for (const stack::device_config& device : result.config.router.devices) {
    const auto capture = folder / ("in-" + device.name + ".pcap");
    if (!exists(capture)) continue;
    ports::capture_reader reader(capture, *app::link_of(device));
    while (const auto frame = reader.next()) {
      frames.push_back(
          {frame->time, {0, device.name, bytes(frame->bytes.begin(), frame->bytes.end())}});
    }
  }
  std::stable_sort(frames.begin(), frames.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  for (auto& [time, frame] : frames) {
    frame.time = static_cast<u32>((time - frames.front().first) / app::nanoseconds_per_jiffy);
    result.frames.push_back(std::move(frame));
  }
  return result;
}

}  // namespace tarvelo::test
