#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# The main job, with no set-up of your own: installs what is missing, builds, and lets a router with
# the fast path carry a real transfer through NAT between two hosts in private network namespaces.
# Where namespaces or FUSE are not to be had it replays a recorded connection instead.
set -eu
cd "$(dirname "$0")/.."
skipped=77

scripts/install.sh build run
echo "Building (preset release)"
scripts/build.sh release tarvelo tarvelo_module

status=0
scripts/lab.sh scripts/demo.sh || status=$?
if [ "$status" -eq $skipped ]; then
  echo "So no live network here; replaying a recorded connection instead."
  exec scripts/demo-replay.sh
fi
exit "$status"
