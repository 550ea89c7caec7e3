#!/usr/bin/env bash
# Runs every benchmark of a build, then the extra comparison scripts
# (scripts/bench.d/*.sh), each of which prints its own ratios.
set -euo pipefail
build=${1:?build dir}
root=$(cd "$(dirname "$0")/.." && pwd)
shopt -s nullglob
for b in "$build"/bench/bench_*; do
  [ -x "$b" ] || continue
  echo "== $(basename "$b")"
  "$b" --benchmark_counters_tabular=true ${BENCH_ARGS:-}
done
for s in "$root"/scripts/bench.d/*.sh; do
  echo "== $(basename "$s")"
  bash "$s" "$build"
done
