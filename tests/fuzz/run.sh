#!/usr/bin/env bash
# Builds the fuzz targets and runs each for SECONDS (default 12) from a
# scratch copy of its corpus; a line per target, non-zero exit on any
# finding, which is kept under build/fuzz/findings/.
set -euo pipefail
cd "$(dirname "$0")/../.."
# clang and its fuzzer runtime come with the machine; install them where not.
ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1 && [ -x /usr/bin/clang++ ] ||
    { apt-get update && apt-get install -y clang libclang-rt-dev; }
cmake --preset fuzz >/dev/null && cmake --build --preset fuzz
# Shorter allocation stacks and a smaller quarantine nearly double the inputs run.
export ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=32:malloc_context_size=8}
scratch=$(mktemp -d /tmp/ravik-fuzz-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
mkdir -p build/fuzz/findings
status=0
for t in tags container gpt sahara response; do
    mkdir -p "$scratch/$t/out" && cp -r tests/fuzz/corpus/$t "$scratch/$t/corpus"
    build/fuzz/tests/fuzz/fuzz_$t -max_total_time="${1:-12}" -timeout=25 -print_final_stats=1 \
        -artifact_prefix="$scratch/$t/out/" "$scratch/$t/corpus" >"$scratch/$t/log" 2>&1 && found="no finding" ||
        { status=1; found="FINDING"; tail -40 "$scratch/$t/log" >&2; cp "$scratch/$t/out/"* build/fuzz/findings/ || true; }
    echo "$t: $(grep -o 'number_of_executed_units: [0-9]*' "$scratch/$t/log" | grep -o '[0-9]*$' || echo 0) executions, $found"
done
exit $status
