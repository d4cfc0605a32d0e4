#!/usr/bin/env bash
# Installs the build into a scratch prefix and uses it as an outside project
# would: the files, the exported symbols, pkg-config and find_package.
set -euo pipefail
build="$1"
src="$2"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake --install "$build" --prefix "$prefix" >/dev/null
for f in include/ravik.h lib/libravik.so lib/pkgconfig/ravik.pc lib/cmake/ravik/ravikConfig.cmake \
         bin/ravik bin/ravik-sim share/man/man1/ravik.1; do
    [ -e "$prefix/$f" ] || { echo "missing $f"; exit 1; }
done
soname="$(readelf -d "$prefix/lib/libravik.so" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')"
[ "$soname" = "libravik.so.4" ] || { echo "soname is '$soname'"; exit 1; }
exported="$(nm -D --defined-only "$prefix/lib/libravik.so" | awk '{print $3}' | sort | tr '\n' ' ')"
[ "$exported" = "rk_describe_error rk_enable_forced_bnr rk_flash_singleimage rk_get_version " ] ||
    { echo "exported: $exported"; exit 1; }

# A sanitized library needs its runtime first in line; the order is the
# loader's business here, not what is being checked.
export ASAN_OPTIONS="${ASAN_OPTIONS:-}:verify_asan_link_order=0:detect_leaks=0"
extra=""
# Not grep -q: it would stop reading early and fail the pipeline under pipefail,
# and a caller built without the sanitizer runtime can hang in the library.
if nm -D "$prefix/lib/libravik.so" | grep __asan_init >/dev/null; then extra="-fsanitize=address,undefined"; fi

cd "$work"
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
cc $extra -o pc_consumer "$src/tests/install/consumer/main.c" $(pkg-config --cflags --libs ravik) \
    -Wl,-rpath,"$prefix/lib"
./pc_consumer

cmake -S "$src/tests/install/consumer" -B cm -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_FLAGS="$extra" -DCMAKE_EXE_LINKER_FLAGS="$extra" >/dev/null
cmake --build cm >/dev/null
./cm/consumer
echo "install layout ok"
