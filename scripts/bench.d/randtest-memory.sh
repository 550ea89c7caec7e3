#!/usr/bin/env bash
# Sequence mode of the randomness suite: `zeph randtest --seq-bytes 125000`
# (the complete suite over 10^6-bit sequences) streams a 256 MiB file of
# random bytes. Prints the peak resident memory (target <= 32 MiB whatever
# the file size) and the time per sequence.
# usage: randtest-memory.sh BUILD_DIR     (RANDTEST_BENCH_MIB, default 256)
set -euo pipefail
build=$(cd "${1:?build dir}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
zeph="$build/tools/zeph"
mib=${RANDTEST_BENCH_MIB:-256}
[ -x "$zeph" ] || { echo "randtest-memory: $zeph is not built"; exit 1; }

tmp=$(mktemp -d /tmp/zeph-bench-XXXXXX)
trap 'rm -rf "$tmp"' EXIT
cc -O2 -o "$tmp/peak-rss" "$here/peak-rss.c"
head -c $((mib << 20)) /dev/urandom >"$tmp/random.bin"

"$tmp/peak-rss" "$tmp/result" "$zeph" randtest --seq-bytes 125000 "$tmp/random.bin" >"$tmp/table"
read -r secs rss_kib rc <"$tmp/result"
# 0: every test passed; 1: a test failed on these random bytes (it happens).
[ "$rc" -le 1 ] || { echo "randtest-memory: zeph failed with exit status $rc"; cat "$tmp/table"; exit 1; }
sequences=$(( (mib << 20) / 125000 ))
awk -v mib="$mib" -v s="$secs" -v r="$rss_kib" -v n="$sequences" -v rc="$rc" 'BEGIN {
  printf "%d MiB as %d sequences of 10^6 bits: %.1f s (%.1f ms per sequence), peak RSS %.1f MiB (target <= 32 MiB) %s, exit %d\n",
         mib, n, s, 1000 * s / n, r / 1024, (r <= 32 * 1024 ? "ok" : "OVER"), rc
}'
tail -n 1 "$tmp/table"
