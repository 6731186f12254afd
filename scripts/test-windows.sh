#!/usr/bin/env bash
# The Windows build, checked under Wine: installs what is missing (MinGW-w64, Wine, nginx, the
# project's Debian packages), cross-builds tqutil.dll, tqnetwork.dll, the demo and the tests,
# installs the Windows package to <build-dir>/install, then runs under Wine
#   - a host program built with MinGW against that package (find_package), against nginx on
#     127.0.0.1: read stream, OpenFileOrUrl through the disk cache (the second open must not
#     reach nginx), OpenFileOrUrlAsync, file information, a ranged read, a download with
#     progress, shut-down in the host's order;
#   - the demo's tour (tqfetch.exe, its own server, no network);
#   - the test suite with ctest, whose summary ends the output.
# The Wine prefix is $WINEPREFIX if set, else <build-dir>/wine (made on first use).
# Usage: scripts/test-windows.sh [build-dir]        (default: build-windows)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${1:-$root/build-windows}")

"$root/scripts/setup.sh" g++-mingw-w64-x86-64-posix wine wine64 googletest

# The first of the programs named that exists (on the PATH or as a full path).
first_program() {
  local p
  for p in "$@"; do
    if command -v "$p" >/dev/null; then command -v "$p"; return; fi
  done
  echo "test-windows: none of $* is installed" >&2
  return 1
}
# Debian 12 has the 64-bit loader only in /usr/lib/wine; other systems put wine64 on the PATH.
wine=$(first_program wine64 /usr/lib/wine/wine64 wine)
wineserver=$(first_program wineserver64 /usr/lib/wine/wineserver64 wineserver)
export WINEPREFIX=${WINEPREFIX:-$build/wine}
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="  # no offer to install Mono or Gecko

mkdir -p "$build"
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  echo "test-windows: creating the Wine prefix $WINEPREFIX" >&2
  "$wine" wineboot -i >"$build/wineboot.log" 2>&1
fi
# One Wine server for the whole run (programs start faster with it up); it leaves by itself 30 s
# after the last program.
"$wineserver" -p30 </dev/null >/dev/null 2>&1 || true  # fails when one is up already

# A Windows path for a Linux one (Wine's Z: drive is the Linux root).
windows_path() { local p=${1//\//\\}; printf 'Z:%s' "$p"; }

echo "== Windows build (MinGW-w64)"
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-mingw64.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTQ_WARNINGS_AS_ERRORS=ON -DTQ_WINEPREFIX="$WINEPREFIX" \
  "${launcher[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)"

echo "== the Windows package, installed to $build/install"
prefix="$build/install"
rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
for file in bin/tqnetwork.dll bin/tqutil.dll lib/libtqnetwork.dll.a lib/libtqutil.dll.a \
            lib/cmake/tqnetwork/tqnetworkConfig.cmake include/tqnetwork/net/stream/open_file_or_url.h \
            bin/tqfetch.exe; do
  [ -f "$prefix/$file" ] || { echo "test-windows: $file is missing from the package" >&2; exit 1; }
done

echo "== a host program built against the package, under Wine against nginx on 127.0.0.1"
consumer="$build/consumer"
cmake -S "$root/tests/consumer" -B "$consumer" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-mingw64.cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$consumer"

ngx="$build/nginx"
nginx_fixture="$root/tests/support/servers/nginx-fixture.sh"
trap '"$nginx_fixture" stop "$ngx"' EXIT
rm -rf "$ngx" "$consumer/run"
mkdir -p "$ngx/www" "$consumer/run"
printf 'hello from nginx\n' >"$ngx/www/hello.txt"
printf 'stored once, served twice\n' >"$ngx/www/cached.txt"
printf '0123456789abcdef%.0s' $(seq 65536) >"$ngx/www/big.bin"  # 1 MiB
"$nginx_fixture" start "$ngx" 'add_header Cache-Control "max-age=600";'
port=$(cat "$ngx/port")

WINEPATH=$(windows_path "$prefix/bin") "$wine" "$consumer/consumer.exe" \
  "$(windows_path "$consumer/run/check.txt")" "http://127.0.0.1:$port" \
  "$(windows_path "$consumer/run/cache")" "$(windows_path "$consumer/run/big-copy.bin")"
requests=$(grep -c '"GET /cached.txt ' "$ngx/access.log" || true)
if [ "$requests" != 1 ]; then
  echo "test-windows: /cached.txt reached nginx $requests times; the second open must come from the cache" >&2
  exit 1
fi
echo "consumer: nginx served /cached.txt once for two opens"
"$nginx_fixture" stop "$ngx"

echo "== the demo's tour under Wine"
status=0
tour=$(cd "$build/bin" && "$wine" tqfetch.exe) || status=$?
printf '%s\n' "$tour"
if [ "$status" != 0 ] || ! grep -q 'identical' <<<"$tour" || grep -q 'WRONG\|DIFFERENT' <<<"$tour"; then
  echo "test-windows: the tour went wrong" >&2
  exit 1
fi

echo "== tests under Wine"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" --timeout 600
