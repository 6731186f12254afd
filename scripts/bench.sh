#!/usr/bin/env bash
# Runs every benchmark scenario in bench/ and prints one table: scenario, our figure, the
# reference's figure (measured in the same run, the two sides taking turns), the ratio of the
# medians and the goal. Figures read "median (smallest-largest run)".
# Usage: scripts/bench.sh [--quick]   (--quick: small sizes and one run a side, a smoke run that
# checks every row works; its figures mean nothing and nothing fails on them)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-bench"
quick=${1:-}

"$root/scripts/setup.sh"
# The benchmarks use the test servers (nginx harness), so the test tree is configured too; only
# the benchmark programs are built.
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DTQ_BUILD_TESTS=ON \
  -DTQ_BUILD_BENCH=ON "${launcher[@]}" >/dev/null
targets=$(ninja -C "$build" -t targets all | sed -n 's/^\([a-z_]*_bench\): .*/\1/p' | sort -u)
cmake --build "$build" -j"$(nproc)" --target $targets >/dev/null

if [ "$quick" = "--quick" ]; then
  # Small sizes: a smoke run that every scenario still works, not figures to quote.
  export TQ_BENCH_QUICK=1 TQ_BENCH_STREAM_MIB=64 TQ_BENCH_SMALL_REQUESTS=200 TQ_BENCH_COPY_MIB=64 \
    TQ_BENCH_ASYNC_FILES=40 TQ_BENCH_STORE_MIB=64 TQ_BENCH_OPEN_ITERATIONS=2000 \
    TQ_BENCH_CLEANUP_ENTRIES=5000 TQ_BENCH_FILE_MIB=64 TQ_BENCH_READS=100
fi

results=$(mktemp)
trap 'rm -f "$results" "$results.out" "$results.err"' EXIT
# Every program's own lines (runs, spreads, secondary figures) are kept here.
log="$build/bench-last.txt"
: > "$log"
for program in "$build"/bench/*/*_bench; do
  echo "running $(basename "$program")..." >&2
  if ! "$program" > "$results.out" 2> "$results.err"; then
    echo "$(basename "$program") failed:" >&2
    cat "$results.err" >&2
    exit 1
  fi
  grep -v '^BENCH' "$results.out" >> "$log" || true
  grep '^BENCH' "$results.out" >> "$results" || true
done

# The machine the figures come from: cores, and the disk and file system under $TMPDIR.
tmp=${TMPDIR:-/tmp}
printf '\nmachine: %s cores (%s); %s: %s\n' "$(nproc)" \
  "$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)" "$tmp" \
  "$(df -T "$tmp" | awk 'NR == 2 { print $1 ", " $2 }')"
lsblk -d -o NAME,SIZE,ROTA,TYPE,MODEL 2>/dev/null | sed 's/^/  /' || true
printf '\n| scenario | ours: median (min-max) | reference: median (min-max) | ratio of medians | goal | |\n|---|---|---|---|---|---|\n'
awk -F'\t' '{ printf "| %s | %s | %s | %s | %s | %s |\n", $2, $3, $4, $5, $6, $7 }' "$results"
echo "(each program's own report: $log)" >&2
