#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Installs what is missing, builds the fuzz targets and runs each for a while, one after the other.
#
#   scripts/fuzz.sh [SECONDS [TARGET...]]     60 seconds and all targets when nothing is said
#
# What a run has learnt is kept in build/fuzz/learnt and used by the next one. An input that fails
# stays in build/fuzz/found; give it to build/fuzz/bin/fuzz_TARGET to see it fail again.
set -eu
cd "$(dirname "$0")/.."

seconds=${1:-60}
[ $# -eq 0 ] || shift
[ $# -gt 0 ] || set -- frame events control configuration capture
case "$seconds" in
  *[!0-9]* | "") echo "fuzz.sh: \"$seconds\" is no number of seconds" >&2; exit 2 ;;
esac

longest_input() {
  case "$1" in
    frame) echo 1600 ;;
    events) echo 400 ;;
    control) echo 6000 ;;
    configuration | capture) echo 4000 ;;
    *) echo "fuzz.sh: no target \"$1\"" >&2; exit 2 ;;
  esac
}

scripts/install.sh build fuzz
scripts/build.sh fuzz
seeds=build/fuzz/seeds
mkdir -p build/fuzz/found "$seeds"
cp -r fuzz/corpus/. "$seeds"
build/fuzz/bin/fuzz_seeds "$seeds"

log=$(mktemp)
trap 'rm -f "$log"' EXIT
for target in "$@"; do
  most=$(longest_input "$target")
  mkdir -p "build/fuzz/learnt/$target"
  if ! build/fuzz/bin/fuzz_"$target" -max_total_time="$seconds" -max_len="$most" -timeout=20 \
      -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="build/fuzz/found/$target-" \
      "build/fuzz/learnt/$target" "$seeds/$target" >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    echo "fuzz.sh: $target fails; the input is the last one named above" >&2
    exit 1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  echo "fuzz $target: $runs inputs, nothing found"
done
