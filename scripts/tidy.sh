#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# clang-tidy over the product's sources, or over the files named, with the compile commands of the
# release build.
#
#   scripts/tidy.sh [FILE...]
set -eu
cd "$(dirname "$0")/.."

log=$(mktemp)
trap 'rm -f "$log"' EXIT
wanted="(module|kernel|stack|ports|app)/.*\.cpp"
[ $# -eq 0 ] || wanted="($(echo "$@" | tr ' ' '|'))"
if ! run-clang-tidy -quiet -j 2 -p build/release "^$PWD/$wanted\$" \
    >"$log" 2>/dev/null; then
  grep -E -A 3 '(warning|error):' "$log" || cat "$log"
  exit 1
fi
echo "clang-tidy: $(grep -c '^clang-tidy' "$log") files, nothing found"
