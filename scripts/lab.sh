#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# A small private network: two hosts with a gap between them for a router to fill.
#
#   scripts/lab.sh COMMAND [ARGUMENT...]
#
#   host "lan"  192.168.1.2/24 ---- veth-lan |  COMMAND runs  | veth-wan ---- host "wan"
#               default route to             |  here, with no |    203.0.113.1/24, and
#               192.168.1.1                  |  address       |    198.51.100.7 behind it
#               2001:db8:1::2/64             |                |    2001:db8:2::fe/64, and
#               default route to ::1         |                |    2001:db8:7::7 behind it
#
# Where the machine has no IPv6 the hosts are without it.
#
# Everything lives in network namespaces of its own, made for this run and gone with it; no
# interface of the machine is touched. COMMAND sees TARVELO_LAN and TARVELO_WAN, process ids whose
# network namespaces are the hosts: nsenter --net --target "$TARVELO_LAN" ...
# Works as root and for a user who may make user namespaces. Exit status 77, with the reason, where
# namespaces cannot be made; otherwise COMMAND's.
set -eu
skipped=77

if [ "${TARVELO_LAB_INSIDE:-}" != 1 ]; then
  if [ "$(id -u)" -eq 0 ]; then user=""; else user="--user --map-root-user"; fi
  # shellcheck disable=SC2086  # two words or none
  if ! reason=$(unshare $user --net --mount true 2>&1); then
    echo "lab.sh: no network namespace can be made here ($reason)" >&2
    exit $skipped
  fi
  export TARVELO_LAB_INSIDE=1
  # shellcheck disable=SC2086
  exec unshare $user --net --mount "$0" "$@"
fi

hosts=""
command_pid=""
clean_up() {
  trap - EXIT INT TERM
  [ -z "$command_pid" ] || kill "$command_pid" 2>/dev/null || true
  for host in $hosts; do kill "$host" 2>/dev/null || true; done
  wait
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

own_net=$(readlink /proc/self/ns/net)
# Starts a process that does nothing in a network namespace of its own; its id is in $host.
start_host() {
  unshare --net sleep infinity &
  host=$!
  hosts="$hosts $host"
  while [ "$(readlink "/proc/$host/ns/net" || echo "$own_net")" = "$own_net" ]; do
    kill -0 "$host" 2>/dev/null || { echo "lab.sh: a host could not be started" >&2; exit $skipped; }
    sleep 0.02
  done
}

in_host() {
  target=$1
  shift
  nsenter --net --target "$target" "$@"
}

# A veth pair with one end here, without addresses of any kind, and the other in the host as eth0.
connect() {
  if ! reason=$(ip link add "$1" type veth peer name eth0 netns "$2" 2>&1); then
    echo "lab.sh: no veth pair can be made here ($reason)" >&2
    exit $skipped
  fi
  ip link set "$1" addrgenmode none up
  in_host "$2" ip link set lo up
  in_host "$2" ip link set eth0 addrgenmode none up
}

start_host
export TARVELO_LAN="$host"
start_host
export TARVELO_WAN="$host"
connect veth-lan "$TARVELO_LAN"
connect veth-wan "$TARVELO_WAN"
in_host "$TARVELO_LAN" ip address add 192.168.1.2/24 dev eth0
in_host "$TARVELO_LAN" ip route add default via 192.168.1.1
in_host "$TARVELO_WAN" ip address add 203.0.113.1/24 dev eth0
in_host "$TARVELO_WAN" ip address add 198.51.100.7/32 dev lo
if [ -e /proc/sys/net/ipv6/conf/all ]; then
  in_host "$TARVELO_LAN" ip address add 2001:db8:1::2/64 dev eth0 nodad
  in_host "$TARVELO_LAN" ip route add default via 2001:db8:1::1
  in_host "$TARVELO_WAN" ip address add 2001:db8:2::fe/64 dev eth0 nodad
  in_host "$TARVELO_WAN" ip address add 2001:db8:7::7/128 dev lo nodad
  in_host "$TARVELO_WAN" ip route add 2001:db8:1::/64 via 2001:db8:2::1
fi

# In the background, so that a signal to this script reaches clean_up at once.
"$@" &
command_pid=$!
status=0
wait "$command_pid" || status=$?
command_pid=""
exit $status
