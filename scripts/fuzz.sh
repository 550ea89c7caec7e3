#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for the given seconds each,
# FUZZ_JOBS of them at a time (default: the number of cores).
# usage: fuzz.sh BUILD_DIR SECONDS
set -euo pipefail
build=$(cd "${1:?build dir}" && pwd)
seconds=${2:-60}
parallel=${FUZZ_JOBS:-$(nproc)}
root=$(cd "$(dirname "$0")/.." && pwd)
shopt -s nullglob
targets=("$build"/tests/fuzz/fuzz_*)
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz: no targets built"
  exit 0
fi

# One target: its log in BUILD/<name>.log, a BUILD/<name>.failed marker when it fails.
run_one() {
  local t=$1 name corpus seeds
  name=$(basename "$t")
  corpus="$build/corpus/$name"
  seeds="$root/tests/fuzz/corpus/${name#fuzz_}"
  mkdir -p "$corpus"
  local args=("$corpus")
  [ -d "$seeds" ] && args+=("$seeds")
  # Per-target settings: tests/fuzz/<name>.options may raise max_len and name
  # a further seed folder (relative to the tree).
  local max_len=8192 options="$root/tests/fuzz/${name#fuzz_}.options" value
  if [ -f "$options" ]; then
    value=$(sed -n 's/^max_len *= *//p' "$options")
    [ -n "$value" ] && max_len=$value
    value=$(sed -n 's/^seeds *= *//p' "$options")
    [ -n "$value" ] && [ -d "$root/$value" ] && args+=("$root/$value")
  fi
  if (cd "$build" && "$t" -max_total_time="$seconds" -max_len="$max_len" -rss_limit_mb=2048 -print_final_stats=0 \
        "${args[@]}" >"$build/$name.log" 2>&1); then
    echo "fuzz: $name ${seconds}s: $(grep -E "^(#[0-9]+\s+DONE|Done [0-9]+ runs)" "$build/$name.log" | tail -n 1)"
  else
    touch "$build/$name.failed"
  fi
}

rm -f "$build"/fuzz_*.failed
for t in "${targets[@]}"; do
  [ -x "$t" ] || continue
  while [ "$(jobs -rp | wc -l)" -ge "$parallel" ]; do wait -n || true; done
  run_one "$t" &
done
wait
failed=("$build"/fuzz_*.failed)
for f in "${failed[@]}"; do
  name=$(basename "$f" .failed)
  tail -n 60 "$build/$name.log"
  echo "fuzz: $name FAILED"
done
[ ${#failed[@]} -eq 0 ] || exit 1
echo "fuzz: all targets clean"
