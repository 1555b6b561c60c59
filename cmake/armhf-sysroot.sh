#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Fetches the libraries that the 32-bit ARM build links against, and those that they need themselves,
# and unpacks them below build/armhf without installing them. May be run again at any time; needs
# root for apt's list of architectures.
set -eu

cd "$(dirname "$0")/.."
root=build/armhf
packages="liburcu-dev liburcu8 libfmt-dev libfmt9 libtomlplusplus-dev libtomlplusplus3
  libfuse3-dev libfuse3-3 libcap-dev libcap2 libpcap0.8-dev libpcap0.8
  libdbus-1-dev libdbus-1-3 libsystemd0 libgcrypt20 libgpg-error0 liblz4-1 liblzma5 libzstd1"
headers="libcli11-dev" # the same for every processor

if [ "$(cat "$root/packages" 2>/dev/null)" = "$packages $headers" ]; then
  exit 0
fi

if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  dpkg --add-architecture armhf
fi
fetch=$(mktemp -d)
trap 'rm -rf "$fetch"' EXIT
names=$headers
for package in $packages; do
  names="$names $package:armhf"
done
# shellcheck disable=SC2086 # one word for each package
if ! (cd "$fetch" && apt-get download -q $names); then
  # One source of many that is out of order is no reason to stop: what is missing then, the download says.
  apt-get update -q || true
  (cd "$fetch" && apt-get download -q $names)
fi
rm -rf "$root"
mkdir -p "$root"
for archive in "$fetch"/*.deb; do
  dpkg-deb --extract "$archive" "$root"
done
# One folder for all, and links into it that hold where it is now.
cp -a "$root/lib/." "$root/usr/lib"
rm -r "$root/lib"
find "$root/usr/lib" -xtype l | while read -r link; do
  ln -sf "$(basename "$(readlink "$link")")" "$link"
done
echo "$packages $headers" >"$root/packages"
