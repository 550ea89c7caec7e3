#!/usr/bin/env bash
# SM2 and SDBI: zeph encrypts and openssl decrypts, the ciphertext orders
# are converted both ways, an openssl signature is verified, the SDBI cipher
# round-trips, and the self-test runs.
set -euo pipefail
zeph=${ZEPH_BIN:?}
dir=${ZEPH_DEMO_DIR:?}/sm2
mkdir -p "$dir"
cd "$dir"

step() { printf '\n$ %s\n' "$*"; "$@"; }

echo "== an SM2 key and a self-signed certificate from openssl"
step openssl ecparam -name SM2 -genkey -noout -out key.pem
step openssl req -x509 -new -sm3 -key key.pem -subj /CN=zeph-demo -days 1 -out cert.pem
printf 'An SM2 message for the demo: encryption standard.\n' >msg.txt

echo
echo "== zeph encrypts to the certificate, openssl decrypts"
printf '\n$ %s\n' "$zeph sm2 encrypt --cert cert.pem msg.txt > msg.der"
"$zeph" sm2 encrypt --cert cert.pem msg.txt >msg.der
openssl asn1parse -inform DER -in msg.der -i
step openssl pkeyutl -decrypt -inkey key.pem -in msg.der -out msg.back
cmp msg.txt msg.back
echo "(openssl recovered the message)"

echo
echo "== the same ciphertext as raw C1C3C2 and as the older C1C2C3, and back to DER"
printf '\n$ %s\n' "$zeph sm2 convert --from der --to c1c3c2 msg.der > msg.c1c3c2"
"$zeph" sm2 convert --from der --to c1c3c2 msg.der >msg.c1c3c2
printf '\n$ %s\n' "$zeph sm2 convert --from c1c3c2 --to c1c2c3 msg.c1c3c2 > msg.c1c2c3"
"$zeph" sm2 convert --from c1c3c2 --to c1c2c3 msg.c1c3c2 >msg.c1c2c3
printf '\n$ %s\n' "$zeph sm2 convert --from c1c2c3 --to der msg.c1c2c3 > msg.again.der"
"$zeph" sm2 convert --from c1c2c3 --to der msg.c1c2c3 >msg.again.der
ls -l msg.der msg.c1c3c2 msg.c1c2c3 msg.again.der | awk '{ print $5, $NF }'
cmp msg.der msg.again.der
echo "(DER -> C1C3C2 -> C1C2C3 -> DER gives back the same bytes)"

echo
echo "== openssl signs (identity 1234567812345678), zeph verifies"
step openssl pkeyutl -sign -rawin -digest sm3 -pkeyopt distid:1234567812345678 -inkey key.pem -in msg.txt -out msg.sig
step "$zeph" sm2 verify --cert cert.pem --sig msg.sig msg.txt
printf 'tampered' >>msg.txt
printf '\n$ %s\n' "$zeph sm2 verify --cert cert.pem --sig msg.sig msg.txt   (message changed)"
if "$zeph" sm2 verify --cert cert.pem --sig msg.sig msg.txt; then
  echo "unexpected: a changed message verified"
  exit 1
fi
echo "(refused, exit status non-zero)"

echo
echo "== SDBI (IDEA-ECB) round trip"
key=00010002000300040005000600070008
head -c 10000 /dev/urandom >data.bin
printf '\n$ %s\n' "$zeph sdbi encrypt --key $key data.bin > data.sdbi"
"$zeph" sdbi encrypt --key "$key" data.bin >data.sdbi
printf '\n$ %s\n' "$zeph sdbi decrypt --key $key data.sdbi > data.back"
"$zeph" sdbi decrypt --key "$key" data.sdbi >data.back
ls -l data.bin data.sdbi | awk '{ print $5, $NF }'
cmp data.bin data.back
echo "(decrypted data equals the original)"

echo
echo "== known-answer self-tests"
step "$zeph" selftest
