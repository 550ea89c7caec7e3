#!/usr/bin/env bash
# Foundation: hashing, base64 and SM4 file encryption through the zeph tool.
set -euo pipefail
zeph=${ZEPH_BIN:?}
dir=${ZEPH_DEMO_DIR:?}/foundation
mkdir -p "$dir"
key=0123456789abcdeffedcba9876543210

step() { printf '\n$ %s\n' "$*"; "$@"; }

printf 'The quick brown fox jumps over the lazy dog\n' >"$dir/fox.txt"
echo "== digests of $dir/fox.txt"
step "$zeph" hash --alg sm3 "$dir/fox.txt"
step "$zeph" hash --alg sha256 "$dir/fox.txt"
step "$zeph" hash --alg md5 "$dir/fox.txt"

echo
echo "== base64 round trip"
step "$zeph" base64 encode "$dir/fox.txt"
"$zeph" base64 encode "$dir/fox.txt" >"$dir/fox.b64"
step "$zeph" base64 decode "$dir/fox.b64"
"$zeph" base64 decode "$dir/fox.b64" | cmp - "$dir/fox.txt"
echo "(decoded text equals the original)"

echo
echo "== SM4-ECB file encryption round trip"
head -c 100000 /dev/urandom >"$dir/data.bin"
step "$zeph" sm4 encrypt --key "$key" "$dir/data.bin"
step "$zeph" sm4 decrypt --key "$key" "$dir/data.bin.enc"
ls -l "$dir/data.bin" "$dir/data.bin.enc" "$dir/data.bin.enc.dec" | awk '{ print $5, $NF }'
cmp "$dir/data.bin" "$dir/data.bin.enc.dec"
echo "(decrypted file equals the original)"
echo
echo "== an existing output is never overwritten"
printf '\n$ %s\n' "$zeph sm4 encrypt --key $key $dir/data.bin"
if out=$("$zeph" sm4 encrypt --key "$key" "$dir/data.bin" 2>&1); then
  echo "unexpected: the second encryption overwrote data.bin.enc"
  exit 1
fi
echo "$out"
echo "(refused, exit status non-zero)"
