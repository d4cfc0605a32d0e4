#!/usr/bin/env bash
# The demo as the README runs it, and its read-back catching what did not
# land: a target whose storage was never flashed must not pass.
set -euo pipefail
build="$1"
src="$2"
work="$(mktemp -d)"
sim_pid=""
cleanup() {
    if [ -n "$sim_pid" ]; then kill "$sim_pid" 2>/dev/null || true; wait "$sim_pid" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT

"$src/examples/demo.sh" "$build" >"$work/demo.out" 2>&1 || { cat "$work/demo.out"; exit 1; }
grep -q "Everything landed where the recipe put it." "$work/demo.out" || { cat "$work/demo.out"; exit 1; }
grep -q "boot_a     sectors     6 .. 261     1.0 MiB  active" "$work/demo.out" || { cat "$work/demo.out"; exit 1; }
left="$(grep -o '/[^ ]*/ravik-demo\.[A-Za-z0-9]*' "$work/demo.out" | head -1)"
[ -n "$left" ] && [ ! -e "$left" ] || { echo "demo left '$left' behind"; exit 1; }

# A fresh target: valid tables, none of the images, boot_a not active.
"$build/sim/ravik-sim" --storage ufs --layout "$src/examples/layout.txt" --link "$work/target" \
    --storage-dir "$work/storage" >/dev/null 2>&1 &
sim_pid=$!
for _ in $(seq 100); do [ -e "$work/target" ] && break; sleep 0.1; done
kill "$sim_pid"; wait "$sim_pid" || true; sim_pid=""
if python3 "$src/examples/show.py" "$work/storage" "$src/examples/container" >"$work/show.out"; then
    cat "$work/show.out"; echo "an unflashed target passed"; exit 1
fi
[ "$(grep -c MISMATCH "$work/show.out")" = 4 ] || { cat "$work/show.out"; exit 1; }
grep -q "primary and backup GPT valid" "$work/show.out"
if grep -q " active" "$work/show.out"; then cat "$work/show.out"; exit 1; fi
echo "demo ok"
