#!/usr/bin/env bash
# Installs what is missing, builds the demo host and runs it. Arguments go to the demo.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build"

"$root/scripts/setup.sh"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target tqfetch -j"$(nproc)" >/dev/null
exec "$build/examples/tqfetch" "$@"
