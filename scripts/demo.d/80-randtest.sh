#!/usr/bin/env bash
# Randomness tests: the library's SM3 hash DRBG against a visibly bad
# generator (the low byte of a 32-bit linear congruential generator, whose
# low bits repeat every few steps), as tables and as SVG pictures kept in
# the build directory.
set -euo pipefail
zeph=${ZEPH_BIN:?}
build=${ZEPH_BUILD:?}
root=$(cd "$(dirname "$0")/../.." && pwd)
dir=${ZEPH_DEMO_DIR:?}/randtest
pictures="$build/demo-randtest"
mkdir -p "$dir" "$pictures"

step() { printf '\n$ %s\n' "$*"; "$@"; }

# 100 sequences of 10^6 bits from the DRBG (seeded from /dev/urandom), and
# as many from the bad generator.
cat >"$dir/sources.c" <<'C'
#include <stdint.h>
#include <stdio.h>
#include "zeph_c_gm.h"
int main(int argc, char **argv) {
  unsigned char entropy[256];
  FILE *u = fopen("/dev/urandom", "rb");
  if (u == NULL || fread(entropy, 1, sizeof entropy, u) != sizeof entropy) return 1;
  fclose(u);
  BIVO_HANDLE h = NULL;
  if (InitializeBivoHandle(&h, entropy, sizeof entropy) != 0) return 2;
  if (BIVO_generate_random_bytes_file(h, 12500000, argv[1]) != 0) return 3;
  UninitializeBivoHandle(h);
  FILE *bad = fopen(argv[2], "wb");
  uint32_t x = 1;
  for (int i = 0; i < 12500000 && bad != NULL; ++i) {
    x = x * 1103515245u + 12345u;
    fputc((int)(x & 0xFF), bad);
  }
  return bad != NULL && fclose(bad) == 0 ? 0 : 4;
}
C
cc -O2 -I"$root/include" -o "$dir/sources" "$dir/sources.c" -L"$build" -lzeph_c -Wl,-rpath,"$build"
"$dir/sources" "$dir/drbg.bin" "$dir/lcg.bin"
head -c 125000 "$dir/drbg.bin" >"$dir/drbg-one.bin"
head -c 125000 "$dir/lcg.bin" >"$dir/lcg-one.bin"

echo "== one sequence of 10^6 bits from the SM3 hash DRBG"
step "$zeph" randtest --plot "$pictures/drbg-one.svg" "$dir/drbg-one.bin"

echo
echo "== 100 sequences of 10^6 bits from the DRBG: pass proportions and uniformity"
step "$zeph" randtest --seq-bytes 125000 --plot "$pictures/drbg-100.svg" "$dir/drbg.bin"

echo
echo "== the low byte of an LCG: balanced, yet far from random"
printf '\n$ %s\n' "$zeph randtest --plot $pictures/lcg-one.svg $dir/lcg-one.bin"
if "$zeph" randtest --plot "$pictures/lcg-one.svg" "$dir/lcg-one.bin"; then
  echo "unexpected: the LCG passed"
  exit 1
fi
echo "(refused, exit status non-zero)"
printf '\n$ %s\n' "$zeph randtest --quick --seq-bytes 125000 --plot $pictures/lcg-100.svg $dir/lcg.bin"
"$zeph" randtest --quick --seq-bytes 125000 --plot "$pictures/lcg-100.svg" "$dir/lcg.bin" || true

echo
echo "pictures (open in a browser):"
ls -1 "$pictures"/*.svg
