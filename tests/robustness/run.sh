#!/bin/sh
# Robustness report: the hostile-target matrix, the leak check and the
# allocation failures from the asan build, every fuzz target for
# FUZZ_SECONDS (default 60), the parallel sessions and hostile targets under
# ThreadSanitizer. Builds what it needs with -j2 unless --no-build.
#   tests/robustness/run.sh [--no-build] [FUZZ_SECONDS]
set -u
cd "$(dirname "$0")/../.."
[ "${1:-}" = --no-build ] && shift || for p in asan tsan; do
    cmake --preset $p >/dev/null && cmake --build --preset $p >/dev/null || exit 1; done
log=$(mktemp -d) && trap 'rm -rf "$log"' EXIT
ok=0
printf '## Fault matrix\n| Case | Expected | Got | Seconds | Limit | Marked partition |\n|---|---|---|---|---|---|\n'
ctest --test-dir build/asan -R '^HostileTarget\.' -j2 -V >"$log/matrix" 2>&1 || ok=1
sed -n 's/^[0-9]*: fault case: //p' "$log/matrix"
echo "## Leaks and allocation failures"
build/asan/tests/ravik_tests --gtest_filter='Leaks.*:*SessionAllocationFailure.*' >"$log/leaks" 2>&1 || ok=1
grep -e '^leak check: ' -e '^allocation-failure runs: ' "$log/leaks"
echo "## Fuzzing, ${1:-60} s a target"
tests/fuzz/run.sh "${1:-60}" >"$log/fuzz" 2>&1 || ok=1
grep -e ' executions, ' "$log/fuzz"
echo "## Under ThreadSanitizer"
build/tsan/ravik_parallel >"$log/tsan" 2>&1 || ok=1
grep -e '^parallel sessions: ' "$log/tsan"
echo "$(grep -c '^fault case: ' "$log/tsan") hostile-target cases, $(grep -c 'WARNING: ThreadSanitizer' "$log/tsan") race reports"
grep -e '^\[  FAILED  \]' "$log"/* && ok=1
[ $ok = 0 ] && echo "All passed." || echo "FAILED."
exit $ok
