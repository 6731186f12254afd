#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time over its seed corpus.
# Usage: scripts/fuzz.sh [seconds-per-target]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}
build="$root/build-fuzz"

"$root/scripts/setup.sh"
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTQ_BUILD_FUZZ=ON -DTQ_BUILD_TESTS=OFF -DTQ_BUILD_BENCH=OFF \
  -DTQ_SANITIZE=address,undefined,fuzzer-no-link >/dev/null
cmake --build "$build" -j"$(nproc)"

for fuzzer in "$build"/fuzz/*_fuzzer; do
  name=$(basename "$fuzzer" _fuzzer)
  corpus="$root/fuzz/corpus/$name"
  work=$(mktemp -d)
  seeds=()
  [ -d "$corpus" ] && seeds=("$corpus")
  echo "== $name (${seconds}s)"
  if ! "$fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$build/$name-" "$work" "${seeds[@]}" >"$build/$name.log" 2>&1; then
    tail -n 60 "$build/$name.log"
    echo "fuzz target $name failed; the input is in $build/$name-*" >&2
    exit 1
  fi
  grep -E "stat::number_of_executed_units|Done" "$build/$name.log" | tail -n 2
  rm -rf "$work"
done
