#!/usr/bin/env bash
# The main job from scratch: a new software key made with the utility, its
# SM2 area initialised and given a key pair and certificate, then the usual
# host requests through ZEPH_C_CI (zeph ci), each request and response shown.
set -euo pipefail
zeph=${ZEPH_BIN:?}
tool="${ZEPH_BUILD:?}/softkey/zeph-softkey"
lib="$ZEPH_BUILD/softkey/libzeph_softkey.so"
dir=${ZEPH_DEMO_DIR:?}/main-job
mkdir -p "$dir"
export ZEPH_SOFTKEY_ROOT="$dir/keys"

serial=MAIN0001
keysn=ZS_$serial
admin_pin=12345678
user_pin=87654321
auth_code=1234567812345678   # the software key's default device authentication key

config="$dir/vorli_ukey_cfg.json"
printf '[{"type":0,"vid":"ZS","skfLib":"%s"}]\n' "$lib" >"$config"

# One request through ZEPH_C_CI; the response goes to stdout and to $reply.
reply=""
ci() {
  printf '\n> %s\n' "$1"
  reply=$("$zeph" ci --config "$config" "$1")
  printf '< %s\n' "$reply"
}
# The "data" text of the last reply (a JSON string).
data() { printf '%s' "$reply" | sed -n 's/.*"data":"\(.*\)"}$/\1/p'; }

echo "== a new software key"
printf '\n$ zeph-softkey create-device --serial %s\n' "$serial"
"$tool" create-device --serial "$serial" --label "zeph main job"

echo
echo "== the SM2 area: created through ZEPH_C_CI (device authentication, then the area)"
ci "{\"type\":501,\"keySN\":\"$keysn\",\"asymid\":2,\"authCode\":\"$auth_code\",\"adminPin\":\"$admin_pin\",\"pin\":\"$user_pin\",\"retryCnt\":10}"
echo
echo "== an SM2 key pair with a self-signed certificate in it"
printf '\n$ zeph-softkey gen-key --serial %s --app VorliEcc --container ECC --alg sm2 --user-pin %s\n' "$serial" "$user_pin"
"$tool" gen-key --serial "$serial" --app VorliEcc --container ECC --alg sm2 --user-pin "$user_pin"
"$tool" export-cert --serial "$serial" --app VorliEcc --container ECC --der --out "$dir/sign.der"
cert=$(base64 -w0 "$dir/sign.der")

echo
echo "== the keys plugged in"
ci '{"type":100}'

echo
echo "== the user PIN"
ci "{\"type\":101,\"keySN\":\"$keysn\",\"pin\":\"$user_pin\",\"asymid\":2}"

echo
echo "== sign with the key, verify with its certificate"
ci "{\"type\":300,\"keySN\":\"$keysn\",\"pin\":\"$user_pin\",\"asymid\":2,\"signData\":\"pay 100 to Alice\"}"
sig=$(data)
ci "{\"type\":301,\"cert\":\"$cert\",\"signData\":\"pay 100 to Alice\",\"raw\":\"$sig\"}"
echo "(the same signature over other data:)"
printf '\n> %s\n' "{\"type\":301,\"cert\":\"...\",\"signData\":\"pay 900 to Alice\",\"raw\":\"$sig\"}"
if out=$("$zeph" ci --config "$config" "{\"type\":301,\"cert\":\"$cert\",\"signData\":\"pay 900 to Alice\",\"raw\":\"$sig\"}"); then
  echo "unexpected: a signature over other data verified" >&2
  exit 1
fi
printf '< %s\n' "$out"

echo
echo "== a device file: write, read back"
content=$(printf 'zeph main job, %s' "$(date -u +%Y-%m-%d)" | base64 -w0)
ci "{\"type\":107,\"keySN\":\"$keysn\",\"pin\":\"$user_pin\",\"idx\":7,\"filepath\":\"note\",\"raw\":\"$content\"}"
ci "{\"type\":108,\"keySN\":\"$keysn\",\"idx\":7,\"filepath\":\"note\"}"
[ "$(data)" = "$content" ] || { echo "the file read back differs" >&2; exit 1; }
printf '(decoded: %s)\n' "$(data | base64 -d)"

echo
echo "== random bytes: from the key, and from the host"
ci "{\"type\":106,\"keySN\":\"$keysn\",\"randLen\":16}"
ci '{"type":106,"randLen":16}'

echo
echo "== the same through the zeph wrappers"
printf '\n$ zeph keys\n'
"$zeph" keys --config "$config"
printf '\n$ zeph pin verify --pin %s\n' "$user_pin"
"$zeph" pin verify --config "$config" --pin "$user_pin"
printf '\n$ zeph sign --pin %s --data hello\n' "$user_pin"
sig=$("$zeph" sign --config "$config" --pin "$user_pin" --data hello)
echo "$sig"
printf '\n$ zeph verify --cert sign.der --data hello --sig ...\n'
"$zeph" verify --config "$config" --cert "$dir/sign.der" --data hello --sig "$sig"
