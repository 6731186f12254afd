#!/usr/bin/env bash
# The Debian package as a new user meets it: builds it (cpack -G DEB) in <build-dir>, checks
# what it holds and where (nothing outside include/tqnetwork/, lib/, bin/ and share/), installs
# it with `apt-get install ./tqnetwork_*.deb`, then, with no other step and no LD_LIBRARY_PATH,
# builds the consumer programs against it through pkg-config and through find_package, runs
# them, and runs tqfetch. The package is removed again at the end unless it was installed
# before. Needs root (or sudo) to install.
# Usage: scripts/test-package.sh <build-dir>
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath "${1:?usage: scripts/test-package.sh <build-dir>}")

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
fail() { echo "test-package: $*" >&2; exit 1; }

echo "== the package"
rm -f "$build"/tqnetwork_*.deb
cmake --build "$build" --target package >/dev/null
debs=("$build"/tqnetwork_*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || fail "cpack made no single tqnetwork_*.deb"
deb=${debs[0]}
echo "$(basename "$deb"): Depends: $(dpkg-deb -f "$deb" Depends)"
for dep in libcurl4 libboost-url; do
  dpkg-deb -f "$deb" Depends | grep -q "$dep" || fail "Depends does not name $dep"
done

# Every file (not directory) under usr/include/tqnetwork/, usr/lib/, usr/bin/ or usr/share/.
files=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}')
stray=$(grep -Ev '^\./usr/(include/tqnetwork|lib|bin|share)/' <<<"$files" || true)
[ -z "$stray" ] || fail "installed outside include/tqnetwork/, lib/, bin/, share/: $stray"
for want in usr/bin/tqfetch usr/include/tqnetwork/net/stream/open_file_or_url.h \
            usr/include/tqnetwork/platform/wininet.h usr/lib/pkgconfig/tqnetwork.pc \
            usr/lib/cmake/tqnetwork/tqnetworkConfig.cmake usr/lib/libtqnetwork.so.0; do
  grep -qx "\./$want" <<<"$files" || fail "$want is not in the package"
done

echo "== apt-get install ./$(basename "$deb")"
installed_before=false
if dpkg-query -W -f='${Status}' tqnetwork 2>/dev/null | grep -q "install ok installed"; then
  installed_before=true
fi
work=$(mktemp -d)
cleanup() {
  rm -rf "$work"
  if [ "$installed_before" = false ]; then "${sudo_cmd[@]}" dpkg --purge tqnetwork >/dev/null || true; fi
}
trap cleanup EXIT
(cd "$(dirname "$deb")" && DEBIAN_FRONTEND=noninteractive \
  "${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "./$(basename "$deb")" >/dev/null)

echo "== a consumer through pkg-config, nothing else set"
cd "$work"
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH
# shellcheck disable=SC2046  # pkg-config's flags are words
g++ -std=c++20 "$root/tests/consumer/main.cc" -o consumer-pc $(pkg-config --cflags --libs tqnetwork)
./consumer-pc "$work/check-pc.txt"
# shellcheck disable=SC2046
g++ -std=c++20 "$root/tests/consumer/example.cc" -o example-pc $(pkg-config --cflags --libs tqnetwork)
printf 'read through the cache\n' >"$work/hello.txt"
[ "$(./example-pc "$work/hello.txt" "$work/cache")" = "read through the cache" ] ||
  fail "the README's example did not print the file"

echo "== a consumer through find_package"
cmake -S "$root/tests/consumer" -B consumer-cmake -G Ninja >/dev/null
cmake --build consumer-cmake >/dev/null
consumer-cmake/consumer "$work/check-cmake.txt"
[ "$(consumer-cmake/example "$work/hello.txt" "$work/cache")" = "read through the cache" ] ||
  fail "the README's example (find_package) did not print the file"

echo "== tqfetch from the package"
tqfetch=$(command -v tqfetch) || fail "tqfetch is not on PATH"
"$tqfetch" --help >/dev/null
"$tqfetch" --version
status=0
why=$("$tqfetch" fetch http://127.0.0.1:9/x 2>&1) || status=$?
echo "$why"
[ "$status" = 1 ] || fail "tqfetch on an unreachable URL exited with $status, not 1"
grep -q ': connection refused$' <<<"$why" || fail "tqfetch did not say why the URL failed"
echo "== package ok"
