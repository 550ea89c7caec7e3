#!/usr/bin/env bash
# Signed messages and envelopes with the demo's software key: a contract
# signed in the three layouts (GM 301, GM 501, PKCS#7), verified by zeph and
# the PKCS#7 one by `openssl cms`; the SM2 signature checked by OpenSSL over
# the content; an envelope made for the key's encryption certificate, opened
# with the key, and one for an OpenSSL key opened by OpenSSL alone.
set -euo pipefail
zeph=${ZEPH_BIN:?}
dir=${ZEPH_DEMO_DIR:?}/p7
tool="$ZEPH_BUILD/softkey/zeph-softkey"
mkdir -p "$dir"
cd "$dir"
export ZEPH_SOFTKEY_ROOT="$ZEPH_DEMO_DIR/softkey"
printf '[{"type":0,"vid":"ZS","skfLib":"%s"}]\n' "$ZEPH_BUILD/softkey/libzeph_softkey.so" >vorli_ukey_cfg.json
pin=87654321

step() { printf '\n$ %s\n' "$*"; "$@"; }

"$tool" export-cert --serial 0123ABCD --app VorliEcc --container ECC >sm2-sign.pem
"$tool" export-cert --serial 0123ABCD --app VorliEcc --container ECC --usage enc >sm2-enc.pem
"$tool" export-cert --serial 0123ABCD --app VorliRsa --container RSA1 >rsa-sign.pem
printf 'Contract: Alice pays Bob 100 on %s.\n' "$(date -u +%Y-%m-%d)" >contract.txt

echo "== the contract signed in the three layouts"
step "$zeph" p7 sign --config . --pin $pin --gm301 --out contract.301.der contract.txt
step "$zeph" p7 sign --config . --pin $pin --gm501 --out contract.501.der contract.txt
step "$zeph" p7 sign --config . --pin $pin --pkcs7 --area rsa --out contract.rsa.p7 contract.txt
step "$zeph" p7 sign --config . --pin $pin --pkcs7 --detached --out contract.sm2.p7 contract.txt
openssl asn1parse -inform DER -in contract.501.der -i | head -n 14

echo
echo "== verified by zeph (content written back) and, for PKCS#7 RSA, by openssl cms"
for m in contract.301.der contract.501.der contract.rsa.p7; do
  step "$zeph" p7 verify --out back.txt "$m"
  cmp contract.txt back.txt
done
step "$zeph" p7 verify --content contract.txt contract.sm2.p7
step openssl cms -verify -binary -inform DER -in contract.rsa.p7 -CAfile rsa-sign.pem -purpose any -out /dev/null

echo
echo "== OpenSSL checks the SM2 signature of the 501 message over the contract (identity 1234567812345678)"
sig_hex=$(openssl asn1parse -inform DER -in contract.501.der | grep 'OCTET STRING' | tail -n 1 | sed 's/.*\]://')
perl -e 'print pack("H*", $ARGV[0])' "$sig_hex" >contract.sig
openssl x509 -in sm2-sign.pem -noout -pubkey >sm2-sign.pub
step openssl pkeyutl -verify -pubin -inkey sm2-sign.pub -rawin -digest sm3 -pkeyopt distid:1234567812345678 \
  -in contract.txt -sigfile contract.sig

echo
echo "== an envelope for the key's SM2 encryption certificate, opened with the key"
step "$zeph" p7 envelope --cert sm2-enc.pem --out contract.env contract.txt
openssl asn1parse -inform DER -in contract.env -i | head -n 12
step "$zeph" p7 open --config . --pin $pin --out opened.txt contract.env
cmp contract.txt opened.txt
echo "(opened: the content is the contract)"

echo
echo "== a PKCS#7 envelope for an RSA key OpenSSL holds, opened by openssl cms"
openssl req -x509 -newkey rsa:2048 -nodes -keyout bob.key -out bob.pem -subj /CN=Bob -days 1 >/dev/null 2>&1
step "$zeph" p7 envelope --cert bob.pem --out for-bob.p7 contract.txt
step openssl cms -decrypt -binary -inform DER -in for-bob.p7 -inkey bob.key -recip bob.pem -out bob.txt
cmp contract.txt bob.txt
echo "(openssl recovered the contract)"
