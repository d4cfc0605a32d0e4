#!/usr/bin/env bash
# Builds the fuzz targets and runs each for SECONDS (default 12), starting
# from a scratch copy of its corpus so the repository's corpus stays as it
# is. Prints a line per target and a table; exits non-zero on any finding,
# which is kept under build/fuzz/findings/.
set -euo pipefail
cd "$(dirname "$0")/../.."
seconds=${1:-12}
targets=(tags container gpt sahara response)

# clang and its fuzzer runtime come with the machine; install them where not.
if [ ! -x /usr/bin/clang++ ] || ! ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1; then
    apt-get update && apt-get install -y clang libclang-rt-dev
fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

# Shorter allocation stacks and a smaller quarantine: the targets allocate
# much, and this nearly doubles the inputs run in the time.
export ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=32:malloc_context_size=8}
bin=build/fuzz/tests/fuzz
findings=build/fuzz/findings
mkdir -p "$findings"
scratch=$(mktemp -d /tmp/ravik-fuzz-XXXXXX)
trap 'rm -rf "$scratch"' EXIT

status=0
rows=()
for t in "${targets[@]}"; do
    work="$scratch/$t"
    mkdir -p "$work/corpus" "$work/out"
    cp tests/fuzz/corpus/"$t"/* "$work/corpus/"
    rc=0
    "$bin/fuzz_$t" -max_total_time="$seconds" -timeout=25 -print_final_stats=1 \
        -artifact_prefix="$work/out/" "$work/corpus" >"$work/log" 2>&1 || rc=$?
    runs=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$work/log" | grep -o '[0-9]*$' || true)
    [ -n "$runs" ] || runs=$(grep -o '^#[0-9]*' "$work/log" | tail -1 | tr -d '#' || true)
    artifact=$(ls "$work/out" 2>/dev/null | head -1)
    if [ "$rc" -ne 0 ] || [ -n "$artifact" ]; then
        status=1
        if [ -n "$artifact" ]; then
            cp "$work/out/$artifact" "$findings/$t-$artifact"
            found="$findings/$t-$artifact"
        else
            found="exit $rc, no input kept"
        fi
        tail -40 "$work/log" >&2
    else
        found="no finding"
    fi
    echo "$t: ${runs:-0} executions, $found"
    rows+=("| $t | $seconds | ${runs:-0} | $found |")
done

echo
echo "| target | seconds | executions | findings |"
echo "|---|---|---|---|"
printf '%s\n' "${rows[@]}"
exit $status
