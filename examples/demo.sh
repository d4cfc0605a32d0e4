#!/usr/bin/env bash
# The demo: packs the container in examples/container, starts a simulated
# UFS target, flashes it with `ravik flash` and shows what landed.
#
# usage: examples/demo.sh [BUILD_DIR]     (default: build/release)
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
build="$(cd "${1:-$here/../build/release}" && pwd)"
ravik="$build/tools/ravik"
sim="$build/sim/ravik-sim"
programmer="$build/sim/demo_programmer.elf"
for f in "$ravik" "$sim" "$programmer"; do
    [ -e "$f" ] || { echo "demo: $f is missing; build first" >&2; exit 1; }
done

work="$(mktemp -d "${TMPDIR:-/tmp}/ravik-demo.XXXXXX")"
sim_pid=""
cleanup() {
    if [ -n "$sim_pid" ]; then
        kill "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

step() { printf '\n== %s\n' "$*"; }

step "Packing the demo container"
# The programmer is the simulator's own: it accepts no other.
cp -R "$here/container" "$work/container"
cp "$programmer" "$work/container/programmer.elf"
"$ravik" simg pack "$work/container" "$work/demo.img"
"$ravik" simg list "$work/demo.img"

step "Starting a simulated UFS target"
"$sim" --storage ufs --layout "$here/layout.txt" --link "$work/target" \
    --storage-dir "$work/storage" >"$work/sim.out" 2>"$work/sim.err" &
sim_pid=$!
for _ in $(seq 100); do
    [ -e "$work/target" ] && break
    kill -0 "$sim_pid" 2>/dev/null || { cat "$work/sim.err" >&2; exit 1; }
    sleep 0.1
done
[ -e "$work/target" ] || { echo "demo: the simulator did not come up" >&2; exit 1; }
cat "$work/sim.err"

step "Flashing it: ravik flash $work/target $work/demo.img"
"$ravik" flash "$work/target" "$work/demo.img"

step "What landed on the target"
python3 "$here/show.py" "$work/storage" "$here/container"
