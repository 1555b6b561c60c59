#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# What many connections cost in memory and time, and what a flood of connections with colliding keys
# costs an established one.
set -eu
cd "$(dirname "$0")/.."

scripts/install.sh build bench
echo "Building (preset release)"
scripts/build.sh release tarvelo-bench
build/release/bin/tarvelo-bench --bounds
