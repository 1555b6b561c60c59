// SPDX-License-Identifier: GPL-2.0-only
#include "app/command_line.h"

int main(int argc, char** argv) {
  return tarvelo::app::run_command(argc, argv);
}
