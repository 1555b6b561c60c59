#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Runs inside scripts/lab.sh: puts the router between the two hosts and measures TCP transfers, IPv4
# through NAT and IPv6 as it is, with the fast path off and with it on.
# Exit status 77, with the reason, where the control files cannot be mounted.
set -eu
cd "$(dirname "$0")/.."
skipped=77
seconds=${TARVELO_DEMO_SECONDS:-4}
server=198.51.100.7
server6=2001:db8:7::7
with_ipv6=yes
[ -e /proc/sys/net/ipv6/conf/all ] || with_ipv6=no

work=$(mktemp -d)
router=""
iperf_server=""
clean_up() {
  trap - EXIT INT TERM
  [ -z "$iperf_server" ] || kill "$iperf_server" 2>/dev/null || true
  [ -z "$router" ] || kill "$router" 2>/dev/null || true
  wait
  rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

if ! (: <>/dev/fuse) 2>/dev/null; then
  echo "demo.sh: /dev/fuse cannot be opened, and the demonstration lives on the control files" >&2
  exit $skipped
fi

vok="$work/proc/vok"
mkdir "$work/proc"
cat >"$work/router.toml" <<EOF
[[device]]
name = "lan0"
type = "port"
interface = "veth-lan"
mac = "02:00:00:00:01:01"
address = ["192.168.1.1/24", "2001:db8:1::1/64"]

[[device]]
name = "wan0"
type = "port"
interface = "veth-wan"
mac = "02:00:00:00:02:01"
address = ["203.0.113.9/24", "2001:db8:2::1/64"]

[[route]]
to = "0.0.0.0/0"
via = "203.0.113.1"
device = "wan0"

[[route]]
to = "::/0"
via = "2001:db8:2::fe"
device = "wan0"

[nat]
masquerade = ["wan0"]

[control]
mount = "$work/proc"
fast_path = false
EOF

start_router() {
  build/release/bin/tarvelo run --config "$work/router.toml" >"$work/router.log" 2>&1 &
  router=$!
  tries=100
  until [ -e "$vok/enable" ]; do
    tries=$((tries - 1))
    if [ "$tries" -eq 0 ] || ! kill -0 "$router" 2>/dev/null; then
      echo "demo.sh: the router does not come up:" >&2
      cat "$work/router.log" >&2
      exit 1
    fi
    sleep 0.1
  done
}

# transfer SERVER CLIENT-PORT LISTING: one TCP transfer from lan to wan. While it runs the listing is
# taken; the rate is left in $rate.
transfer() {
  nsenter --net --target "$TARVELO_LAN" \
    iperf3 --client "$1" --cport "$2" --time "$seconds" --format m >"$work/iperf" 2>&1 &
  client=$!
  sleep $((seconds / 2 + 1))
  { head -n 1 "$vok/$3" && grep -E "port=$2 " "$vok/$3"; } >"$work/$3" || true
  if ! wait "$client"; then
    echo "demo.sh: the transfer failed:" >&2
    cat "$work/iperf" "$work/router.log" >&2
    exit 1
  fi
  rate=$(awk '$NF == "receiver" { print $(NF - 2) }' "$work/iperf")
}

# transfers CLIENT-PORT: one of each family; the rates are left in $rate4 and $rate6.
transfers() {
  transfer $server "$1" ipc_info
  rate4=$rate
  echo "     TCP over IPv4 from lan to wan, ${seconds} s:   $rate4 Mbit/s"
  [ "$with_ipv6" = yes ] || return 0
  transfer $server6 $(($1 + 100)) ipc_v6_info
  rate6=$rate
  echo "     TCP over IPv6 from lan to wan, ${seconds} s:   $rate6 Mbit/s"
}

counters() {
  show "$vok/statistics_info"
  [ "$with_ipv6" = no ] || show "$vok/statistics_forward_ipv6_packet_num"
}

# result FAMILY OFF ON
result() {
  awk -v family="$1" -v off="$2" -v on="$3" \
    'BEGIN { printf "  Result, %s: %s Mbit/s without the fast path, %s Mbit/s with it (%.2f times).\n",
             family, off, on, on / off }'
}

show() {
  sed 's/^/     /; s/ *$//' "$1"
}

start_router
nsenter --net --target "$TARVELO_WAN" iperf3 --server --interval 0 >"$work/server.log" 2>&1 &
iperf_server=$!
sleep 0.5

cat <<EOF

  A home router in one process. Two Linux hosts, and all there is between them is tarvelo:

     host "lan"  ------------  tarvelo  ------------  host "wan"
     192.168.1.2               NAT to 203.0.113.9     $server
     2001:db8:1::2             IPv6 as it is          $server6

EOF

echo "  1. Fast path off: every packet climbs through the router's network stack."
transfers 40001
off4=$rate4
off6=${rate6:-}
counters
echo

echo 1 >"$vok/enable"
echo "  2. Fast path on (echo 1 > vok/enable): after the first packets of a connection the module"
echo "     rewrites and sends each packet itself; the stack no longer sees it."
transfers 40002
echo
echo "     vok/ipc_info during the transfer: the connection's two directions, each with what is to"
echo "     be done to its packets. (The total also counts iperf3's own control connections.)"
show "$work/ipc_info"
if [ "$with_ipv6" = yes ]; then
  echo
  echo "     vok/ipc_v6_info: the same for IPv6, where nothing is translated."
  show "$work/ipc_v6_info"
fi
echo
echo "     The counters: ip_packet and ip_v6_packet are the packets that took the short way."
counters
echo
result IPv4 "$off4" "$rate4"
[ "$with_ipv6" = no ] || result IPv6 "$off6" "$rate6"
echo

kill "$router"
wait "$router" || { echo "demo.sh: the router did not stop in order" >&2; cat "$work/router.log"; exit 1; }
router=""
echo "  The router's own summary:"
show "$work/router.log"
