#!/usr/bin/env bash
# A device's own functions are the ones that are called: by a wex built with its library, and by any program that uses
# libwex.so beside it. Arguments: where to build, libwex.so of the ordinary build.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=${here%/tests/package}
[ $# -eq 2 ] || { echo "usage: $0 DIRECTORY LIBWEX" >&2; exit 2; }
rm -rf "$1" && mkdir -p "$1"
into=$(cd "$1" && pwd)
ordinary=$(readlink -f "$2")
functions='printk_syslog_ext qx_syslog fs_set_vsd_envs'
fail() { printf 'FAIL: %s\n' "$*"; exit 1; }

gcc -std=c99 -Wall -Werror -D_GNU_SOURCE -shared -fPIC -I "$root/include" "$here/device/device.c" -o "$into/libdevice.so"

# ---- Beside the ordinary library: the order in which a linker is told of the two must not matter -----------

mkdir "$into/lib" && cp "$ordinary" "$into/lib/libwex.so.1"
for order in "$into/lib/libwex.so.1 $into/libdevice.so" "$into/libdevice.so $into/lib/libwex.so.1"; do
  # shellcheck disable=SC2086
  gcc -std=c99 -Wall -Werror -I "$root/include" -I "$root/qx-proc-wex" "$here/device/caller.c" -Wl,--no-as-needed $order \
    -Wl,-rpath,"$into/lib:$into" -o "$into/caller"
  said=$(DEVICE_LOG=/dev/stdout "$into/caller")
  [ "$said" = 'printk 5 HA HA_TEST 1: text 7' ] || fail "with the libraries in the order $order the caller got: $said"
done

# ---- Built with the device's library -----------------------------------------------------------------------

{ cmake -S "$root" -B "$into/build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DWEX_BUILD_TESTS=OFF \
    -DWEX_PLATFORM_LIBS="$into/libdevice.so" && nice cmake --build "$into/build" --target wex wex_shared; } > "$into/build.log" 2>&1 ||
  { tail -n 20 "$into/build.log"; fail "wex does not build with WEX_PLATFORM_LIBS"; }
for file in "$into/build/wex" "$into/build/libwex.so"; do
  readelf -d "$file" | grep -q 'NEEDED.*libdevice.so' || fail "$file does not use libdevice.so"
done
for name in $functions; do
  nm -D --undefined-only "$into/build/wex" | grep -qw "$name" || fail "wex has a $name of its own"
  ! nm -D --defined-only "$into/build/wex" "$into/build/libwex.so" | grep -qw "$name" || fail "$name is offered to others"
done
gcc -std=c99 -Wall -Werror -I "$root/qx-proc-wex" "$here/example/service.c" "$into/build/libwex.so" \
  -Wl,-rpath-link,"$into" -Wl,-rpath,"$into/build:$into" -o "$into/service"
exec "$root/tools/sandbox" --leak-check --bind "$into" -- bash "$here/device/inside.sh" "$into"
