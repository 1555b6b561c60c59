#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Installs what is missing, builds, and runs all tests.
set -eu
cd "$(dirname "$0")/.."

scripts/install.sh build run test
echo "Building (preset release)"
scripts/build.sh release
ctest --preset release --output-log build/release/tests.log
