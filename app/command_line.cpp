// SPDX-License-Identifier: GPL-2.0-only
#include "app/command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>

#include "app/config.h"
#include "app/input_error.h"
#include "app/replay.h"
#include "app/run.h"

namespace tarvelo::app {

namespace {

/// Errors of libraries may have several lines; users get one.
std::string one_line(std::string text) {
  while (!text.empty() && text.back() == '\n')
    text.pop_back();
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

int report(int status, const std::string& what) {
  fmt::print(stderr, "tarvelo: {}\n", one_line(what));
  return status;
}

/// What is wrong with the arguments, and the cure.
std::string explain(const CLI::App& parser, const CLI::ParseError& error) {
  const std::vector<std::string> strays = parser.remaining();
  const bool has_command = !parser.get_subcommands().empty();
  if (has_command && !strays.empty()) {
    return fmt::format("{}: no option before the subcommand; write it after", strays.front());
  }
  if (has_command || error.get_name() != "RequiredError") {
    return fmt::format("{}; see tarvelo --help", error.what());
  }
  std::string known;
  for (const CLI::App* command : parser.get_subcommands([](const CLI::App*) { return true; })) {
    known += " " + command->get_name();
  }
  const std::string wrong =
      strays.empty() ? "no subcommand" : strays.front() + ": no such subcommand";
  return fmt::format("{}; write one of{}, or see tarvelo --help", wrong, known);
}

int check(const std::string& file) {
  const app_config config = load_config(file);
  fmt::print("{}: good: {} devices, {} routes\n", file, config.router.devices.size(),
             config.router.routes.size());
  return exit_status::good;
}

CLI::App* add_command(CLI::App& parser, const char* name, const char* what, std::string& config) {
  CLI::App* command = parser.add_subcommand(name, what);
  command->add_option("--config", config, "configuration (TOML)")->type_name("FILE")->required();
  return command;
}

void add_module_option(CLI::App* command, std::string& module) {
  command->add_option("--module", module, "the module, if not the one beside the command")
      ->type_name("FILE");
}

/// Each use of the option takes one value, and the option may be used again.
void add_repeated(CLI::App* command, const char* name, std::vector<std::string>& values,
                  const char* form, const char* what) {
  command->add_option(name, values, what)->type_name(form)->allow_extra_args(false);
}

}  // namespace

assignment parse_assignment(const std::string& option, const std::string& form,
                            const std::string& text) {
  const auto equals = text.find('=');
  if (equals == std::string::npos || equals == 0) {
    throw input_error(
        fmt::format("{} {}: no name before a '='; write {} {}", option, text, option, form));
  }
  return {text.substr(0, equals), text.substr(equals + 1)};
}

int run_command(int argc, const char* const* argv) {
  CLI::App parser("A router with a fast path for routed, translated and bridged traffic.",
                  "tarvelo");
  parser.set_version_flag("--version", "tarvelo " TARVELO_VERSION);
  parser.require_subcommand(1);

  run_options run_with;
  CLI::App* run_it =
      add_command(parser, "run", "Own real interfaces until SIGINT or SIGTERM", run_with.config);
  add_module_option(run_it, run_with.module);

  replay_options replay_with;
  CLI::App* replay_it = add_command(
      parser, "replay",
      "Feed captures through the router, on a virtual clock that starts at 0 with the first frame",
      replay_with.config);
  add_module_option(replay_it, replay_with.module);
  add_repeated(replay_it, "--in", replay_with.inputs, input_form, "what a port receives");
  add_repeated(replay_it, "--set", replay_with.settings, setting_form,
               "write to a control file before the first frame");
  replay_it->add_option("--out", replay_with.out, "where the results go")
      ->type_name("DIR")
      ->required();

  std::string config_to_check;
  const CLI::App* check_it =
      add_command(parser, "check", "Say whether a configuration is good", config_to_check);

  try {
    parser.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const bool asked_for_text = error.get_exit_code() == 0;
    if (asked_for_text) return parser.exit(error);
    return report(exit_status::bad_input, explain(parser, error));
  }
  try {
    if (check_it->parsed()) return check(config_to_check);
    return replay_it->parsed() ? replay(replay_with) : run(run_with);
  } catch (const input_error& error) {
    return report(exit_status::bad_input, error.what());
  } catch (const std::exception& error) {
    return report(exit_status::failure, error.what());
  }
}

}  // namespace tarvelo::app
