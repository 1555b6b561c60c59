#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Fetches the libraries that the 32-bit ARM build links against and unpacks them below build/armhf,
# without installing them. May be run again at any time; needs root for apt's list of architectures.
set -eu

cd "$(dirname "$0")/.."
root=build/armhf
packages="liburcu-dev liburcu8"

if [ -e "$root/usr/include/arm-linux-gnueabihf/urcu/urcu-memb.h" ]; then
  exit 0
fi

if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  dpkg --add-architecture armhf
fi
fetch=$(mktemp -d)
trap 'rm -rf "$fetch"' EXIT
names=$(for package in $packages; do printf '%s:armhf ' "$package"; done)
# shellcheck disable=SC2086 # one word for each package
if ! (cd "$fetch" && apt-get download -q $names); then
  apt-get update -q
  (cd "$fetch" && apt-get download -q $names)
fi
mkdir -p "$root"
for archive in "$fetch"/*.deb; do
  dpkg-deb --extract "$archive" "$root"
done
