#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Configures and builds one preset, quietly unless it fails.
#
#   scripts/build.sh PRESET [TARGET...]
set -eu
cd "$(dirname "$0")/.."

preset=$1
shift
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}; } \
    >"$log" 2>&1; then
  cat "$log" >&2
  echo "build.sh: preset $preset does not build, see above" >&2
  exit 1
fi
