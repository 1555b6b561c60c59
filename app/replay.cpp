// SPDX-License-Identifier: GPL-2.0-only
#include "app/replay.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <optional>

#include "app/config.h"
#include "app/control_files.h"
#include "app/device_statistics.h"
#include "app/held_log.h"
#include "app/output_directory.h"
#include "app/replay_session.h"
#include "ports/capture_file.h"

namespace tarvelo::app {

namespace {

/// `jiffies` has 32 bits: a replay that is longer would see its clock go round.
constexpr s64 longest_replay = s64{0xFFFFFFFF} * nanoseconds_per_jiffy;

std::string port_names(const app_config& config) {
  std::string names;
  for (const stack::device_config& device : config.router.devices) {
    if (link_of(device)) names += " " + device.name;
  }
  return names.empty() ? " none" : names;
}

std::vector<replay_input> find_inputs(const app_config& config,
                                      const std::vector<std::string>& texts) {
  std::vector<replay_input> inputs;
  for (const std::string& text : texts) {
    const auto [name, capture] = parse_assignment("--in", input_form, text);
    if (capture.empty()) {
      throw input_error(
          fmt::format("--in {}: no capture after the '='; write --in {}", text, input_form));
    }
    const auto& devices = config.router.devices;
    const auto device =
        std::find_if(devices.begin(), devices.end(),
                     [&, &wanted = name](const auto& d) { return d.name == wanted; });
    if (device == devices.end() || !link_of(*device)) {
      throw input_error(fmt::format("--in {}: no port \"{}\" in {}; name one of{}", text, name,
                                    config.file, port_names(config)));
    }
    for (const replay_input& earlier : inputs) {
      if (earlier.device != name) continue;
      throw input_error(
          fmt::format("--in {}: a second capture for \"{}\"; merge them first", text, name));
    }
    inputs.push_back({name, capture, *link_of(*device)});
  }
  return inputs;
}

/// Reads every capture to its end, so that nothing is begun that a damaged one would break off.
void validate(const std::vector<replay_input>& inputs) {
  std::optional<s64> first;
  for (const replay_input& input : inputs) {
    ports::capture_reader reader(input.capture, input.link);
    const auto frame = reader.next();
    if (frame) first = std::min(first.value_or(frame->time), frame->time);
  }
  for (const replay_input& input : inputs) {
    ports::capture_reader reader(input.capture, input.link);
    for (u64 n = 1; const auto frame = reader.next(); ++n) {
      if (frame->time - *first <= longest_replay) continue;
      throw input_error(fmt::format(
          "{}:frame {}: more than 49 days after the first frame; replay a shorter stretch",
          input.capture, n));
    }
  }
}

/// The results take the place of files of their names, which must not be the captures.
void keep_captures(const app_config& config, const std::vector<replay_input>& inputs,
                   const std::filesystem::path& out) {
  for (const stack::device_config& device : config.router.devices) {
    if (!link_of(device)) continue;
    const std::filesystem::path result = out / result_name(device);
    for (const replay_input& input : inputs) {
      std::error_code error;
      if (!std::filesystem::equivalent(result, input.capture, error)) continue;
      throw input_error(
          fmt::format("--in {}={}: what \"{}\" sends would take its place; choose another --out",
                      input.device, input.capture, device.name));
    }
  }
}

void apply(const assignment& setting) try {
  write_control_file(setting.key, setting.value);
} catch (const input_error& error) {
  throw input_error(fmt::format("--set {}: {}", setting.key, error.what()));
}

}  // namespace

int replay(const replay_options& options) try {
  const app_config config = load_config(options.config);
  const std::vector<replay_input> inputs = find_inputs(config, options.inputs);
  std::vector<assignment> settings;
  for (const std::string& text : options.settings) {
    settings.push_back(parse_assignment("--set", setting_form, text));
  }
  validate(inputs);
  keep_captures(config, inputs, options.out);

  output_directory out(options.out);
  std::string statistics;
  held_log log;
  {
    replay_session session(config, inputs, out);
    session.load_module(options.module);
    for (const assignment& setting : settings)
      apply(setting);
    log.release();
    session.feed();
    for (const control_file& file : read_control_files()) {
      out.write(fmt::format("{}/{}", control_directory, file.name), file.text);
    }
    statistics = device_statistics_text(config.router, session.router());
    session.finish();
  }
  out.commit();
  fmt::print("{}", statistics);
  return exit_status::good;
} catch (const ports::port_error& error) {
  throw input_error(error.what());
}

}  // namespace tarvelo::app
