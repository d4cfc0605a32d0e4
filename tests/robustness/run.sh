#!/bin/sh
# Robustness runs: the hostile-target matrix, the leak check and the
# allocation failures from the asan build, the parallel sessions under
# ThreadSanitizer, every fuzz target for FUZZ_SECONDS (default 60); then a
# summary table in markdown. Run from anywhere; builds what it needs with -j2.
#   tests/robustness/run.sh [--no-build] [FUZZ_SECONDS]
set -eu
src=$(cd "$(dirname "$0")/../.." && pwd)
cd "$src"
build=yes
[ "${1:-}" = "--no-build" ] && { build=no; shift; }
fuzz_seconds=${1:-60}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

elapsed() { echo $(( $(date +%s) - $1 )); }

if [ $build = yes ]; then
    cmake --preset asan >/dev/null
    cmake --build --preset asan >"$out/asan-build.log" 2>&1 || { tail -40 "$out/asan-build.log"; exit 1; }
fi

# --- the fault matrix -------------------------------------------------------
t0=$(date +%s)
ctest --test-dir build/asan -R '^HostileTarget\.' -j2 -V >"$out/matrix.log" 2>&1 && matrix_ok=yes || matrix_ok=no
matrix_s=$(elapsed "$t0")
sed -n 's/^[0-9]*: fault case: //p' "$out/matrix.log" >"$out/cases"
echo "## Fault matrix"
echo
echo "| Fault | Where | Expected | Got | Seconds | Limit | Marked partition | Backup entries |"
echo "|---|---|---|---|---|---|---|---|"
cases=0 good=0
while IFS= read -r line; do
    name=${line%% | *}
    rest=${line#* | }
    fault=${name%%/*}
    where=${name#*/}
    get() { echo "$rest" | tr ' ' '\n' | sed -n "s/^$1=//p"; }
    exp=$(get expected) got=$(get code) secs=$(get seconds) limit=$(get limit) persist=$(get persist) kept=$(get backup)
    cases=$((cases + 1))
    [ "$exp" = "$got" ] && good=$((good + 1))
    echo "| $fault | $where | $exp | $got | $secs | $limit | $persist | $kept |"
done <"$out/cases"
matrix_failed=$(grep -c 'Test *#[0-9]*: .*\*\*\*' "$out/matrix.log" || true)
echo
echo "$cases cases, $good with the expected code; gtest cases failed: $matrix_failed; ${matrix_s}s under ctest -j2"
echo

# --- the leak check ---------------------------------------------------------
echo "## Leak check"
echo
build/asan/tests/ravik_tests --gtest_filter='Leaks.*' >"$out/leaks.log" 2>&1 && leaks_ok=yes || leaks_ok=no
sed -n 's/^leak check: /    /p' "$out/leaks.log"
echo
echo "(blocks: the library's live blocks; heap_bytes: the heap in use; rss_kb: RssAnon, which a sanitizer's"
echo "quarantine inflates. Growth after a warm-up; passed: $leaks_ok)"
echo

# --- allocation failures -----------------------------------------------------
echo "## Allocation failures"
echo
build/asan/tests/ravik_tests --gtest_filter='SessionAllocationFailure.*' >"$out/alloc.log" 2>&1 && alloc_ok=yes || alloc_ok=no
alloc_line=$(sed -n 's/^allocation-failure runs: //p' "$out/alloc.log")
echo "    $alloc_line (passed: $alloc_ok)"
echo

# --- fuzzing ------------------------------------------------------------------
echo "## Fuzzing"
echo
tests/fuzz/run.sh "$fuzz_seconds" >"$out/fuzz.log" 2>&1 && fuzz_ok=yes || fuzz_ok=no
grep '^|' "$out/fuzz.log" || tail -30 "$out/fuzz.log"
echo
fuzz_runs=$(sed -n 's/^\([a-z]*\): \([0-9]*\) executions, .*/\1 \2/p' "$out/fuzz.log" | tr '\n' ';' | sed 's/;$//; s/;/, /g')

# --- parallel sessions under ThreadSanitizer --------------------------------
echo "## Parallel sessions under ThreadSanitizer"
echo
tsan_build_s=0
if [ $build = yes ]; then
    t0=$(date +%s)
    cmake --preset tsan >/dev/null
    cmake --build --preset tsan >"$out/tsan-build.log" 2>&1 || { tail -40 "$out/tsan-build.log"; exit 1; }
    tsan_build_s=$(elapsed "$t0")
fi
# The hostile targets too, sessions side by side on their error roads; all
# but the test that waits out a minute-long reboot.
t0=$(date +%s)
build/tsan/ravik_parallel --gtest_filter='-*Provisioning*' >"$out/tsan.log" 2>&1 && tsan_ok=yes || tsan_ok=no
tsan_run_s=$(elapsed "$t0")
races=$(grep -c 'WARNING: ThreadSanitizer' "$out/tsan.log" || true)
runs=$(sed -n 's/^parallel sessions: //p' "$out/tsan.log")
tsan_cases=$(grep -c '^fault case: ' "$out/tsan.log" || true)
if [ "$races" = 0 ] && [ $tsan_ok = yes ]; then tsan_verdict=clean; else tsan_verdict="NOT clean ($races reports)"; fi
echo "    $runs, and $tsan_cases hostile-target cases: $tsan_verdict (build ${tsan_build_s}s, run ${tsan_run_s}s)"
[ "$races" = 0 ] || grep -A12 'WARNING: ThreadSanitizer' "$out/tsan.log" | head -60
echo

# --- summary ----------------------------------------------------------------
# "leak check: <what> runs=N blocks=B heap_bytes=H rss_kb=R" -> "N <what>: +B blocks, +H bytes"
leak_line=$(sed -n 's/^leak check: \(.*\) runs=\([0-9]*\) blocks=\(-*[0-9]*\) heap_bytes=\(-*[0-9]*\) .*/\2 \1: +\3 blocks, +\4 heap bytes/p' \
    "$out/leaks.log" | tr '\n' ';' | sed 's/;$//; s/;/; /g')
echo "## Summary"
echo
echo "| Check | Runs | Result |"
echo "|---|---|---|"
echo "| Hostile targets (fault matrix) | $cases cases | $good with the expected code, $matrix_failed failed |"
echo "| Parallel sessions, ThreadSanitizer | $runs; $tsan_cases hostile-target cases | $tsan_verdict |"
echo "| Leaks | $leak_line | $([ $leaks_ok = yes ] && echo 'no growth' || echo 'growth') |"
echo "| Fuzzing, ${fuzz_seconds}s a target | $fuzz_runs executions | $([ $fuzz_ok = yes ] && echo 'no finding' || echo 'FINDING, see build/fuzz/findings') |"
echo "| Allocation failures, one per allocation of a whole session | $alloc_line | $([ $alloc_ok = yes ] && echo 'clean codes, no leak, every backup file opens' || echo 'FAILED') |"

[ "$cases" -gt 0 ] && [ "$good" = "$cases" ] && [ $matrix_ok = yes ] && [ $leaks_ok = yes ] &&
    [ "$races" = 0 ] && [ $tsan_ok = yes ] && [ $alloc_ok = yes ] && [ $fuzz_ok = yes ]
