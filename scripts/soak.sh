#!/usr/bin/env bash
# Soak: a server and three clients, each a separate dovel-soak-peer process, make random
# additions, changes and removals and raise events for SECONDS; then they stop, wait
# until nothing arrives any more and write their trees. The four trees must be
# identical. Prints each peer's figures (changes per second, peak memory) and exits
# non-zero when a peer fails or the trees differ.
# Usage: scripts/soak.sh SECONDS [BUILD_DIR]   (BUILD_DIR defaults to build/)
# SOAK_PEER_ARGS adds options to every peer, e.g. "--rate 20000 --quiet 5".
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

seconds=${1:-}
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -lt 1 ]; then
  echo "usage: scripts/soak.sh SECONDS [BUILD_DIR]" >&2
  exit 2
fi
build=${2:-$root/build}
if [ ! -x "$build/bin/dovel-soak-peer" ]; then
  bash scripts/deps.sh
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$build" --target dovel-soak-peer -j "$(nproc 2>/dev/null || echo 2)"
fi
peer="$build/bin/dovel-soak-peer"

work=$(mktemp -d "${TMPDIR:-/tmp}/dovel-soak.XXXXXX")
pids=()
keep=0
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  if [ "$keep" -eq 0 ]; then rm -rf "$work"; else echo "soak: trees and logs kept in $work" >&2; fi
}
trap cleanup EXIT

# The server prints its port first; the clients start once it listens.
mkfifo "$work/server.out"
"$peer" server ${SOAK_PEER_ARGS:-} --name server --seconds "$seconds" --seed 1 --out "$work/server.json" \
  >"$work/server.out" 2>"$work/server.err" &
pids+=($!)
exec 3<"$work/server.out"
if ! read -r -t 30 line <&3 || ! [[ "$line" =~ ^listening\ on\ (127\.0\.0\.1:[0-9]+)$ ]]; then
  echo "soak: the server did not start" >&2
  cat "$work/server.err" >&2
  exit 1
fi
address=${BASH_REMATCH[1]}
cat <&3 >"$work/server.log" &
pids+=($!)

for k in 1 2 3; do
  "$peer" client "$address" ${SOAK_PEER_ARGS:-} --name "client$k" --seconds "$seconds" --seed "$((k + 1))" \
    --out "$work/client$k.json" >"$work/client$k.log" 2>"$work/client$k.err" &
  pids+=($!)
done

failed=0
for i in 0 2 3 4; do
  if ! wait "${pids[$i]}"; then
    failed=1
  fi
done
wait "${pids[1]}" || true
exec 3<&-

for name in server client1 client2 client3; do
  cat "$work/$name.log" 2>/dev/null || true
  if [ -s "$work/$name.err" ]; then
    echo "--- $name stderr (tail)"
    tail -n 20 "$work/$name.err"
  fi
done
if [ "$failed" -ne 0 ]; then
  keep=1
  echo "soak: a peer failed" >&2
  exit 1
fi
for k in 1 2 3; do
  if ! cmp -s "$work/server.json" "$work/client$k.json"; then
    keep=1
    echo "soak: the tree of client$k differs from the server's:" >&2
    diff <(tr ',' '\n' <"$work/server.json") <(tr ',' '\n' <"$work/client$k.json") | head -n 20 >&2 || true
    exit 1
  fi
done
echo "soak: all four trees identical ($(wc -c <"$work/server.json") bytes of JSON)"
