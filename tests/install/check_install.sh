#!/usr/bin/env bash
# Installs the build into a scratch prefix and uses it as an outside project
# would: the files and exported symbols, then the C caller of README.md built
# with pkg-config and with find_package and run against two simulated
# targets, whose storage must then hold the demo's images.
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
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
for f in include/ravik.h lib/libravik.so lib/pkgconfig/ravik.pc lib/cmake/ravik/ravikConfig.cmake \
         bin/ravik bin/ravik-sim share/man/man1/ravik.1 share/ravik/demo_programmer.elf; do
    [ -e "$prefix/$f" ] || { echo "missing $f"; exit 1; }
done
soname="$(readelf -d "$prefix/lib/libravik.so" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')"
[ "$soname" = "libravik.so.4" ] || { echo "soname is '$soname'"; exit 1; }
exported="$(nm -D --defined-only "$prefix/lib/libravik.so" | awk '{print $3}' | sort | tr '\n' ' ')"
[ "$exported" = "rk_describe_error rk_enable_forced_bnr rk_flash_singleimage rk_get_version " ] ||
    { echo "exported: $exported"; exit 1; }

# The first C block of the README is the example.
awk '/^```c$/ { inside = 1; next } /^```$/ && inside { exit } inside' "$src/README.md" >"$work/flash_one.c"
grep -q rk_flash_singleimage "$work/flash_one.c" || { echo "no C example in README.md"; exit 1; }
# A sanitized library needs its runtime first in line; the order is the
# loader's business here, not what is being checked.
export ASAN_OPTIONS="${ASAN_OPTIONS:-}:verify_asan_link_order=0:detect_leaks=0"
extra=""
# Not grep -q: it would stop reading early and fail the pipeline under pipefail,
# and a caller built without the sanitizer runtime can hang in the library.
if nm -D "$prefix/lib/libravik.so" | grep __asan_init >/dev/null; then extra="-fsanitize=address,undefined"; fi
cd "$work"
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
cc -Wall -Wextra -Werror $extra -o pc_flash_one flash_one.c $(pkg-config --cflags --libs ravik) \
    -Wl,-rpath,"$prefix/lib"
mkdir cm
cat >cm/CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(flash_one C)
find_package(ravik 4 REQUIRED)
add_executable(flash_one ../flash_one.c)
target_compile_options(flash_one PRIVATE -Wall -Wextra -Werror)
target_link_libraries(flash_one PRIVATE ravik::ravik)
CMAKE
cmake -S cm -B cm/build -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$extra" \
    -DCMAKE_EXE_LINKER_FLAGS="$extra" >/dev/null
cmake --build cm/build >/dev/null

# The demo's container, made with the installed tool and programmer.
cp -R "$src/examples/container" content
cp "$prefix/share/ravik/demo_programmer.elf" content/programmer.elf
"$prefix/bin/ravik" simg pack content demo.img >/dev/null
"$prefix/bin/ravik-sim" --storage ufs --count 2 --layout "$src/examples/layout.txt" --link "$work/target" \
    >/dev/null 2>sim.err &
sim_pid=$!
for _ in $(seq 100); do [ -e target-1 ] && break; sleep 0.1; done
./pc_flash_one target-0 demo.img >pc.out 2>pc.err &
pc=$!
./cm/build/flash_one target-1 demo.img >cm.out 2>cm.err || { cat cm.err; exit 1; }
wait "$pc" || { cat pc.err; exit 1; }
[ "$(cat pc.out)" = flashed ] && [ "$(cat cm.out)" = flashed ]
grep -q "] Opening device: target-0" pc.err
for n in 0 1; do
    python3 "$src/examples/show.py" "target-$n.storage" "$src/examples/container" >"show$n.out" ||
        { cat "show$n.out"; exit 1; }
done

# A failure: the example says why and exits 1.
if ./pc_flash_one "$work/none" demo.img >/dev/null 2>fail.err; then exit 1; fi
grep -q "^failed (7): rk_flash_singleimage()->device_open()->error opening device$" fail.err
echo "installed package ok"
