#!/bin/sh
# Builds the benchmarks in release mode and measures a flash at the speed of
# the link: every figure three times, interleaved with a plain pty copy and a
# plain writer into the simulator, medians printed with their goals.
set -eu
cd "$(dirname "$0")/.."
cmake --preset bench >/dev/null
cmake --build --preset bench --target bench_flash_speed >/dev/null
exec build/bench/bench/bench_flash_speed
