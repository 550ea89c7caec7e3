#!/usr/bin/env bash
# Enrolment on the software key: a new SM2 pair and its PKCS#10 request
# (`zeph csr`), checked by `openssl req -verify`, signed by an `openssl ca`
# CA whose CRL and OCSP responder run on loopback; the certificate and the
# CA chain stored on the key and read back; then verification with the CRL
# and with OCSP, before and after the CA revokes the certificate.
set -euo pipefail
zeph=${ZEPH_BIN:?}
peer="${ZEPH_BUILD:?}/tools/zeph-test-peer"
tool="$ZEPH_BUILD/softkey/zeph-softkey"
dir=${ZEPH_DEMO_DIR:?}/enrol
mkdir -p "$dir"
cd "$dir"
export ZEPH_SOFTKEY_ROOT="$dir/softkey"
printf '[{"type":0,"vid":"ZS","skfLib":"%s"}]\n' "$ZEPH_BUILD/softkey/libzeph_softkey.so" >vorli_ukey_cfg.json
pin=87654321
sm2=(-sm3 -sigopt distid:1234567812345678)
sm2ca=(-sigopt distid:1234567812345678)  # openssl ca: the digest is default_md

step() { printf '\n$ %s\n' "$*"; "$@"; }
quiet() { "$@" >/dev/null 2>&1; }
# A fresh CRL, and the HTTP reply the peer sends for it.
publish_crl() {
  openssl ca -config ca.cnf -gencrl -keyfile ca.key -cert ca.pem -out ca.crl.pem "${sm2ca[@]}" 2>/dev/null
  openssl crl -in ca.crl.pem -outform DER -out ca.crl
  { printf 'HTTP/1.0 200 OK\r\nContent-Type: application/pkix-crl\r\nContent-Length: %d\r\n\r\n' \
      "$(stat -c %s ca.crl)"; cat ca.crl; } >ca-crl
}
# `openssl ocsp` on a port of its choosing (it reads the database once).
start_ocsp() {
  [ -n "$ocsp_pid" ] && { kill "$ocsp_pid" 2>/dev/null || true; wait "$ocsp_pid" 2>/dev/null || true; }
  : >ocsp.log
  openssl ocsp -port 0 -index db/index.txt -CA ca.pem -rsigner ca.pem -rkey ca.key -rmd sm3 \
    -rsigopt distid:1234567812345678 >ocsp.log 2>&1 &
  ocsp_pid=$!
  until grep -q '^ACCEPT' ocsp.log; do sleep 0.1; done
  ocsp_url="http://127.0.0.1:$(sed -nE 's/^ACCEPT .*:([0-9]+) .*/\1/p' ocsp.log)/"  # "ACCEPT [::]:PORT PID=..."
}

echo "== a software key with the SM2 area and its container, no certificate"
quiet "$tool" create-device --serial 0E0E0001 --label "zeph enrolment demo"
quiet "$tool" create-app --serial 0E0E0001 --app VorliEcc --admin-pin 12345678 --user-pin $pin
quiet "$tool" gen-key --serial 0E0E0001 --app VorliEcc --container ECC --alg sm2 --usage sign --no-cert --user-pin $pin

echo
echo "== the loopback peer serves the CRL; its port goes into the certificates"
coproc PEER { exec "$peer" --dir "$dir"; }
ocsp_pid=
trap 'exec {PEER[1]}>&-; [ -n "$ocsp_pid" ] && kill "$ocsp_pid" 2>/dev/null; wait' EXIT
read -r port <&"${PEER[0]}"
crl_url="http://127.0.0.1:$port/reply/ca-crl"  # the peer sends the file ca-crl as it stands
echo "CRL at $crl_url"

echo
echo "== an SM2 CA run with openssl ca"
mkdir -p db && : >db/index.txt && echo 1000 >db/serial && echo 01 >db/crlnumber
cat >ca.cnf <<EOF
[ca]
default_ca = demo
[demo]
database = db/index.txt
serial = db/serial
crlnumber = db/crlnumber
new_certs_dir = db
default_md = sm3
default_days = 30
default_crl_days = 7
policy = any
copy_extensions = none
unique_subject = no
[any]
commonName = supplied
organizationName = optional
[req]
distinguished_name = dn
[dn]
[v3_ca]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[leaf]
basicConstraints = CA:FALSE
keyUsage = critical, digitalSignature, nonRepudiation
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
crlDistributionPoints = URI:$crl_url
EOF
quiet openssl genpkey -algorithm SM2 -out ca.key
quiet openssl req -x509 -new -key ca.key -subj "/C=CN/O=zeph demo/CN=zeph demo SM2 CA" -days 30 \
  -config ca.cnf -extensions v3_ca -out ca.pem "${sm2[@]}"
openssl x509 -in ca.pem -noout -subject

echo
echo "== a new pair on the key and its request"
step "$zeph" csr --config . --pin $pin --dn "CN=张三,O=zeph demo" --new-key 256 --out req.der
step openssl req -inform DER -in req.der -noout -verify -subject -vfyopt distid:1234567812345678

echo
echo "== the CA signs it; the certificate and the chain go on the key"
openssl req -inform DER -in req.der -out req.pem  # openssl ca reads PEM requests only
step openssl ca -batch -config ca.cnf -extensions leaf -keyfile ca.key -cert ca.pem -in req.pem \
  -out holder.pem -notext "${sm2ca[@]}" -vfyopt distid:1234567812345678
step "$zeph" cert save --config . --pin $pin holder.pem
step "$zeph" cert chain --config . --pin $pin --store ca.pem
step "$zeph" cert get --config . --out back.der
openssl x509 -in holder.pem -outform DER | cmp - back.der && echo "(the key returns the certificate the CA issued)"
step "$zeph" cert info --config . --item 0x31 holder.pem

echo
echo "== verification: the CRL from the distribution point, and OCSP"
publish_crl
start_ocsp
echo "OCSP responder at $ocsp_url"
step "$zeph" cert verify --ca ca.pem holder.pem
step "$zeph" cert verify --ca ca.pem --ocsp "$ocsp_url" holder.pem

echo
echo "== the CA revokes the certificate: both checks now refuse it"
quiet openssl ca -config ca.cnf -revoke holder.pem -keyfile ca.key -cert ca.pem
publish_crl
start_ocsp
for how in "" "--ocsp $ocsp_url"; do
  printf '\n$ %s\n' "zeph cert verify --ca ca.pem $how holder.pem"
  if "$zeph" cert verify --config . --ca ca.pem $how holder.pem; then
    echo "unexpected: a revoked certificate verified" >&2
    exit 1
  fi
done
echo "(revoked: refused by the CRL and by OCSP)"
