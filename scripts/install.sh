#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Installs the Debian packages that the named groups of work need, and only those that are missing.
#
#   scripts/install.sh build [run] [test] [bench] [check] [fuzz] [arm]
#
# Says nothing when nothing is missing. Needs root or sudo only when something is.
set -eu

packages_of() {
  case "$1" in
    build) echo "g++ cmake ninja-build pkg-config ccache git ca-certificates
                 libfmt-dev libtomlplusplus-dev libcli11-dev libpcap-dev libfuse3-dev liburcu-dev libcap-dev
                 nlohmann-json3-dev libgtest-dev googletest libbenchmark-dev
                 python3 iproute2 util-linux" ;;
    run) echo "fuse3 iproute2 util-linux iperf3" ;;
    test) echo "tshark" ;;
    bench) echo "valgrind" ;;
    check) echo "clang clang-format clang-tidy binutils python3" ;;
    fuzz) echo "clang libclang-rt-dev" ;;
    arm) echo "g++-arm-linux-gnueabihf qemu-user-static googletest" ;;
    *) echo "install.sh: no group \"$1\"; there are: build run test bench check fuzz arm" >&2; exit 2 ;;
  esac
}

wanted=""
for group in "$@"; do
  list=$(packages_of "$group")
  wanted="$wanted $list"
done

missing=""
for package in $wanted; do
  case $(dpkg-query -W -f '${Status}' "$package" 2>/dev/null || true) in
    *"ok installed") ;;
    *) case " $missing " in *" $package "*) ;; *) missing="$missing $package" ;; esac ;;
  esac
done
[ -n "$missing" ] || exit 0

as_root=""
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "install.sh: missing packages:$missing; run as root, or install sudo" >&2
    exit 2
  fi
  as_root="sudo"
fi
echo "Installing:$missing"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
export DEBIAN_FRONTEND=noninteractive
# shellcheck disable=SC2086  # the lists are meant to be split
if ! { $as_root apt-get update -qq &&
       $as_root apt-get install -y -qq --no-install-recommends $missing; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "install.sh: apt-get failed, see above" >&2
  exit 1
fi
