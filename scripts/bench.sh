#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Nanoseconds and instructions a packet for the fast path, the router's stack and a plain hash
# table, with the number of connections swept; the ratio of fast to slow; the memory figures.
#
#   scripts/bench.sh [google-benchmark's options]
set -eu
cd "$(dirname "$0")/.."

scripts/install.sh build bench
echo "Building (preset release)"
scripts/build.sh release tarvelo-bench

bench=build/release/bin/tarvelo-bench
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# instructions SUBJECT CONNECTIONS PACKETS: prints the instructions a packet. For "forward" those of
# the module's operation and all that it calls, for the others the benchmark's loop around them too.
instructions() {
  collected='tarvelo::bench::measured_batch*'
  [ "$1" != forward ] || collected='tarvelo::_vok_forward(*'
  if ! valgrind --tool=callgrind --callgrind-out-file="$work/out" \
      --toggle-collect="$collected" \
      "$bench" --count "$1" "$2" "$3" >"$work/log" 2>&1; then
    cat "$work/log" >&2
    exit 1
  fi
  awk -v packets="$3" '/^summary:|^totals:/ { total = $2 } END { printf "%.1f", total / packets }' \
    "$work/out"
}

"$bench" "$@"

echo
echo "instructions a packet (callgrind)"
for row in "forward 1" "forward 1000" "forward 10000" "forward 100000" \
           "router_fast 1000" "router_slow 1000" "naive 1000" \
           "bridged_out_fast 1000" "vlan_out_fast 1000" "pppoe_out_fast 1000" "l2tp_out_fast 1000" \
           "pptp_out_fast 1000" "ipv6_out_fast 1000" "fragments_out_fast 1000"; do
  # shellcheck disable=SC2086  # subject and connections
  set -- $row
  # Whole batches, and every connection at least once.
  packets=$((($2 / 25600 + 1) * 25600))
  printf '  %-18s %7s connections   %8s\n' "$1" "$2" "$(instructions "$1" "$2" "$packets")"
done
