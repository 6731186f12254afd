#!/usr/bin/env bash
# Compiles every source of tqutil/ and net/ for Windows (MinGW-w64 against the SDK's own
# <windows.h> and <wininet.h>), syntax and warnings only: the sources are meant to build there
# unchanged, and nothing else runs their Windows branches. platform/ is left out: on Windows it
# is the system itself.
# Usage: scripts/check-windows.sh
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
compiler=x86_64-w64-mingw32-g++-posix

if ! command -v "$compiler" >/dev/null; then
  echo "check-windows: installing g++-mingw-w64-x86-64-posix" >&2
  sudo_cmd=()
  if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -q
  "${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends g++-mingw-w64-x86-64-posix
fi
"$root/scripts/setup.sh"

# The header-only parts of the dependencies, without the rest of the host's /usr/include (its C
# library headers would shadow MinGW's).
include="$root/build-windows/include"
rm -rf "$include"
mkdir -p "$include/openssl"
ln -s /usr/include/boost "$include/boost"
ln -s /usr/include/gsl "$include/gsl"
for header in /usr/include/openssl/*.h /usr/include/x86_64-linux-gnu/openssl/*.h; do
  ln -sf "$header" "$include/openssl/"
done

check() {  # define, then files
  local define=$1
  shift
  printf '%s\n' "$@" | xargs -P "$(nproc)" -I{} \
    "$compiler" -std=c++20 -fsyntax-only -Wall -Wextra -Wpedantic -Werror \
    -I"$root" -isystem "$include" -D"$define" {}
}
cd "$root"
check TQUTIL_BUILDING tqutil/*.cc
check TQNET_BUILDING net/*/*.cc
echo "check-windows: $(ls tqutil/*.cc net/*/*.cc | wc -l) sources compile for Windows"
