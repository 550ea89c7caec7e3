#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for the given seconds each.
# usage: fuzz.sh BUILD_DIR SECONDS
set -euo pipefail
build=$(cd "${1:?build dir}" && pwd)
seconds=${2:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
shopt -s nullglob
targets=("$build"/tests/fuzz/fuzz_*)
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz: no targets built"
  exit 0
fi
for t in "${targets[@]}"; do
  [ -x "$t" ] || continue
  name=$(basename "$t")
  corpus="$build/corpus/$name"
  mkdir -p "$corpus"
  seeds="$root/tests/fuzz/corpus/${name#fuzz_}"
  args=("$corpus")
  [ -d "$seeds" ] && args+=("$seeds")
  # Per-target settings: tests/fuzz/<name>.options may raise max_len and name
  # a further seed folder (relative to the tree).
  max_len=8192
  options="$root/tests/fuzz/${name#fuzz_}.options"
  if [ -f "$options" ]; then
    value=$(sed -n 's/^max_len *= *//p' "$options")
    [ -n "$value" ] && max_len=$value
    value=$(sed -n 's/^seeds *= *//p' "$options")
    [ -n "$value" ] && [ -d "$root/$value" ] && args+=("$root/$value")
  fi
  echo "fuzz: $name for ${seconds}s"
  (cd "$build" && "$t" -max_total_time="$seconds" -max_len="$max_len" -rss_limit_mb=2048 -print_final_stats=0 \
      "${args[@]}" >"$build/$name.log" 2>&1) || { tail -n 60 "$build/$name.log"; echo "fuzz: $name FAILED"; exit 1; }
  grep -E "^(#[0-9]+\s+DONE|Done [0-9]+ runs)" "$build/$name.log" | tail -n 1 || true
done
echo "fuzz: all targets clean"
