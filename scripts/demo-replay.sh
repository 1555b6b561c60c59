#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Plays a recorded TCP connection into the router and shows what became of each frame. Needs no
# privileges and no network.
set -eu
cd "$(dirname "$0")/.."

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
build/release/bin/tarvelo replay --config examples/replay/router.toml \
  --in lan0=examples/replay/lan0.pcap --in wan0=examples/replay/wan0.pcap --out "$out" \
  >"$out/log" 2>&1 || { cat "$out/log" >&2; exit 1; }

count() {
  grep -c "\"verdict\": \"$1\"" "$out/frames.jsonl" || true
}
cat <<EOF

  A download through a home router with source NAT, from a capture:

     frames received             $(wc -l <"$out/frames.jsonl")
     by the router's stack       $(count slow)
     by the fast path            $(count fast-routed)
     dropped                     $(count dropped)

  The first packets open the connection in the stack; after 20 of them the module sends
  the rest by itself, and the last ones (FIN) go through the stack again.

  vok/ipc_info, the connection's two directions as the fast path keeps them:
$(sed 's/^/     /; s/ *$//' "$out/vok/ipc_info")

  vok/statistics_info:
$(sed 's/^/     /' "$out/vok/statistics_info")
EOF
