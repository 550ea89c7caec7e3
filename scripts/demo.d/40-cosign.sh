#!/usr/bin/env bash
# Two-party SM2: client and server make a joint key in three steps, sign a
# message that openssl verifies under the joint key, and decrypt a ciphertext
# that openssl made for it. Each step is its own zeph process; the sides only
# see each other's base64 values.
set -euo pipefail
zeph=${ZEPH_BIN:?}
dir=${ZEPH_DEMO_DIR:?}/cosign
mkdir -p "$dir"
cd "$dir"

# run OUT ARGS...: one step, its name=base64 lines kept in OUT and shown.
run() {
  local out=$1
  shift
  printf '\n$ zeph %s\n' "$*"
  "$zeph" "$@" >"$out"
  cut -c1-72 "$out"
}
v() { sed -n "s/^$1=//p" "$2"; }

echo "== key generation: neither side ever holds the whole key"
run client1 cosign keygen --side client
run server1 cosign keygen --side server --p1 "$(v p1 client1)"
run client2 cosign keygen --side client --d1 "$(v d1 client1)" --pubkey "$(v pubKey server1)" \
  --credential "$(v credential server1)" --pem joint.pem
cat joint.pem

echo
echo "== signing: openssl verifies the result under the joint key"
printf 'Signed by two parties, verified by one.\n' >msg.txt
run client3 cosign sign --side client --pubkey "$(v pubKey client2)" msg.txt
run server3 cosign sign --side server --d2 "$(v d2 server1)" --digest "$(v digest client3)" --q1 "$(v q1 client3)"
run client4 cosign sign --side client --d1 "$(v d1 client1)" --k1 "$(v k1 client3)" --digest "$(v digest client3)" \
  --pubkey "$(v pubKey client2)" --r "$(v r server3)" --s2 "$(v s2 server3)" --s3 "$(v s3 server3)"
v signature client4 | base64 -d >msg.sig
printf '\n$ %s\n' "openssl pkeyutl -verify -pubin -inkey joint.pem -rawin -digest sm3 -pkeyopt distid:1234567812345678 -in msg.txt -sigfile msg.sig"
openssl pkeyutl -verify -pubin -inkey joint.pem -rawin -digest sm3 -pkeyopt distid:1234567812345678 -in msg.txt \
  -sigfile msg.sig

echo
echo "== decryption: openssl encrypts to the joint key, the two parties decrypt"
printf 'A secret for two.\n' >secret.txt
printf '\n$ %s\n' "openssl pkeyutl -encrypt -pubin -inkey joint.pem -in secret.txt -out secret.enc"
openssl pkeyutl -encrypt -pubin -inkey joint.pem -in secret.txt -out secret.enc
run client5 cosign decrypt --side client --d1inv "$(v d1inv client1)" secret.enc
run server5 cosign decrypt --side server --d2inv "$(v d2inv server1)" --t1 "$(v t1 client5)"
run secret.back cosign decrypt --side client --t2 "$(v t2 server5)" secret.enc
cmp secret.txt secret.back
echo "(the two parties recovered openssl's plaintext)"
