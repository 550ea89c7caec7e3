#!/usr/bin/env bash
# Co-signing through ZEPH_C_CI: the demo key gets an SM2 key that exists
# nowhere whole, shared with the reference co-signing service; it signs
# (openssl verifies), packs a Corvex signature and decrypts a message that
# openssl encrypted for it.
set -euo pipefail
zeph=${ZEPH_BIN:?}
server="${ZEPH_BUILD:?}/tools/zeph-cosign-server"
lib="$ZEPH_BUILD/softkey/libzeph_softkey.so"
dir=${ZEPH_DEMO_DIR:?}/cosign-rows
mkdir -p "$dir"
cd "$dir"
export ZEPH_SOFTKEY_ROOT="$ZEPH_DEMO_DIR/softkey"
keysn=ZS_0123ABCD
pin=87654321
config="$dir/vorli_ukey_cfg.json"
printf '[{"type":0,"vid":"ZS","skfLib":"%s"}]\n' "$lib" >"$config"

echo "== the reference co-signing service on 127.0.0.1"
echo "\$ zeph-cosign-server --db shares.db --port 0 &"
coproc SERVICE { exec "$server" --db "$dir/shares.db" --port 0; }
trap 'kill "$SERVICE_PID" 2>/dev/null; wait "$SERVICE_PID" 2>/dev/null || true' EXIT
read -r port <&"${SERVICE[0]}"
url="http://127.0.0.1:$port/"
echo "listening on port $port"

reply=""
ci() {
  printf '\n> %s\n' "$1"
  reply=$("$zeph" ci --config "$config" "$1")
  printf '< %s\n' "$reply"
}
# A member of the JSON text a row returns as its data.
member() { printf '%s' "$reply" | sed -n "s/.*\\\\\"$1\\\\\":\\\\\"\\([^\\\\]*\\)\\\\\".*/\\1/p"; }
common="\"keySN\":\"$keysn\",\"pin\":\"$pin\",\"url\":\"$url\",\"deviceID\":\"zeph-demo\""

echo
echo "== 600: a co-signed SM2 key; the client share goes to the key, sealed under the PIN"
ci "{\"type\":600,$common}"
# The 65-byte point as a SubjectPublicKeyInfo openssl reads.
{ printf '3059301306072a8648ce3d020106082a811ccf5501822d034200'; member pubKey | base64 -d | xxd -p | tr -d '\n'; } |
  xxd -r -p >pub.der
openssl pkey -pubin -inform DER -in pub.der -text -noout | head -3

echo
echo "== 601: a signature made by the key and the service together"
printf 'Signed by a key that exists nowhere whole.\n' >msg.txt
ci "{\"type\":601,$common,\"signData\":\"$(base64 -w0 msg.txt)\"}"
member signature | base64 -d >msg.sig
echo "\$ openssl dgst -sm3 -verify pub.der -keyform DER -sigopt distid:1234567812345678 -signature msg.sig msg.txt"
openssl dgst -sm3 -verify pub.der -keyform DER -sigopt distid:1234567812345678 -signature msg.sig msg.txt

echo
echo "== 900: the same in a Corvex signature with the key's certificate"
cert=$("$ZEPH_BUILD/softkey/zeph-softkey" export-cert --serial 0123ABCD --app VorliEcc --container ECC --der | base64 -w0)
ci "{\"type\":900,$common,\"signData\":\"$(base64 -w0 msg.txt)\",\"cert\":\"$cert\"}"
member signature | base64 -d >msg.corvex
echo "\$ openssl asn1parse -inform DER -in msg.corvex -i | head -12"
openssl asn1parse -inform DER -in msg.corvex -i | head -12

echo
echo "== 604: openssl encrypts to the co-signed key; key and service decrypt together"
printf 'A secret for the key and the service.\n' >secret.txt
echo "\$ openssl pkeyutl -encrypt -pubin -keyform DER -inkey pub.der -in secret.txt -out secret.enc"
openssl pkeyutl -encrypt -pubin -keyform DER -inkey pub.der -in secret.txt -out secret.enc
ci "{\"type\":604,$common,\"raw\":\"$(base64 -w0 secret.enc)\"}"
member plain | base64 -d >secret.back
cmp secret.txt secret.back
echo "(the key and the service recovered openssl's plaintext)"
