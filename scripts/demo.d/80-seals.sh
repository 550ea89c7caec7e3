#!/usr/bin/env bash
# Seals on a key: a new software key with its SM2 area and its stamp
# application made through ZEPH_C_CI, the real GB sample seal stored in
# slot 1 and the SES sample in slot 3, read back, named and listed, and the
# picture of slot 1 exported for an image viewer.
set -euo pipefail
zeph=${ZEPH_BIN:?}
tool="${ZEPH_BUILD:?}/softkey/zeph-softkey"
lib="$ZEPH_BUILD/softkey/libzeph_softkey.so"
seals="$(cd "$(dirname "$0")/../.." && pwd)/tests/data/seals"
dir=${ZEPH_DEMO_DIR:?}/seals
mkdir -p "$dir"
export ZEPH_SOFTKEY_ROOT="$dir/keys"

serial=SEAL0001
keysn=ZS_$serial
user_pin=87654321
auth_code=1234567812345678   # the software key's default device authentication key
config="$dir/vorli_ukey_cfg.json"
printf '[{"type":0,"vid":"ZS","skfLib":"%s"}]\n' "$lib" >"$config"

# One request through ZEPH_C_CI, long values shown cut; the reply is in $reply.
cut_long() { sed -E 's/([A-Za-z0-9+\/=]{40})[A-Za-z0-9+\/=]{20,}/\1.../g'; }
reply=""
ci() {
  printf '\n> %s\n' "$1" | cut_long
  reply=$("$zeph" ci --config "$config" "$1")
  printf '< %s\n' "$reply" | cut_long
}
data() { printf '%s' "$reply" | sed -n 's/.*"data":"\(.*\)"}$/\1/p'; }

echo "== a new software key, its SM2 area, and its stamp application whose PIN is the keySN"
printf '\n$ zeph-softkey create-device --serial %s\n' "$serial"
"$tool" create-device --serial "$serial" --label "zeph seal demo"
ci "{\"type\":501,\"keySN\":\"$keysn\",\"asymid\":2,\"authCode\":\"$auth_code\",\"adminPin\":\"12345678\",\"pin\":\"$user_pin\"}"
ci "{\"type\":501,\"keySN\":\"$keysn\",\"asymid\":4,\"authCode\":\"$auth_code\",\"adminPin\":\"12345678\",\"pin\":\"$keysn\"}"

echo
echo "== the GB sample seal to slot 1, the SES sample to slot 3 (the user PIN proves the seal PIN)"
ci "{\"type\":800,\"keySN\":\"$keysn\",\"pin\":\"$user_pin\",\"idx\":1,\"sealData\":\"$(base64 -w0 "$seals/gb-v4-user.esl")\"}"
ci "{\"type\":800,\"keySN\":\"$keysn\",\"pin\":\"$user_pin\",\"idx\":3,\"sealData\":\"$(base64 -w0 "$seals/ses-v1-user.esl")\"}"
printf '\n$ zeph-softkey show --serial %s\n' "$serial"
"$tool" show --serial "$serial" | sed -n '/VorliStamp/,$p'

echo
echo "== read back (801) and named (802)"
for slot in 1 3; do
  ci "{\"type\":801,\"keySN\":\"$keysn\",\"idx\":$slot}"
  data | base64 -d >"$dir/slot$slot.der"
  ci "{\"type\":802,\"keySN\":\"$keysn\",\"idx\":$slot}"
done
cmp "$dir/slot1.der" "$seals/gb-v4-user.esl"
cmp "$dir/slot3.der" "$seals/ses-v1-user.esl"
echo "(both seals came back byte for byte)"

echo
echo "== every seal with its summary (803)"
ci "{\"type\":803,\"keySN\":\"$keysn\"}"
printf '\n$ zeph seal list --key %s\n' "$keysn"
"$zeph" seal list --key "$keysn" --config "$config"

echo
echo "== the picture of slot 1, for an image viewer"
printf '\n$ zeph seal picture --key %s --slot 1 --out %s\n' "$keysn" "$dir/stamp"
"$zeph" seal picture --key "$keysn" --slot 1 --out "$dir/stamp" --config "$config"
if command -v file >/dev/null; then file "$dir/stamp.png"; fi
