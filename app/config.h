// SPDX-License-Identifier: GPL-2.0-only
//
// The configuration of the command: the router's parts as the stack takes them, the command's own
// settings, and where in the file each was written.
//
// Reading has two steps. The reader takes the file apart and checks each value on its own; the
// checker looks at the whole: names that must refer to something, addresses that must not clash,
// ends that must be reachable. The first fault found throws input_error.
#pragma once

#include <string>
#include <vector>

#include "app/table_reader.h"
#include "stack/config.h"

namespace tarvelo::app {

struct control_config {
  std::string mount = "/run/tarvelo/proc";  ///< directory where the control files appear
  bool fast_path = true;                    ///< the first value of "enable"
};

/// In step with the lists of the router's configuration.
struct config_places {
  std::vector<item_places> devices;
  std::vector<item_places> routes;
  std::vector<item_places> neighbours;
  item_places nat;  ///< masquerade
  std::vector<item_places> forwards;
  std::vector<item_places> helpers;
  std::vector<item_places> slow;
  item_places control;
};

struct app_config {
  std::string file;
  stack::router_config router;
  control_config control;
  config_places places;
};

/// Reads and checks a configuration file.
[[nodiscard]] app_config load_config(const std::string& file);

/// The first step alone.
[[nodiscard]] app_config read_config(const std::string& file);
/// The second step.
void check_config(const app_config& config);

/// Where in the file the device is that `text` names, for an error that the router reports; the
/// file as a whole when it names none.
[[nodiscard]] text_place place_named_in(const app_config& config, const std::string& text);

}  // namespace tarvelo::app
