#!/usr/bin/env bash
# RFC 3161 time stamps: a file signed with `openssl smime`, the signature
# stamped by a loopback TSA (the test peer over `openssl ts -reply`) through
# `zeph tsa stamp`, then checked by OpenSSL alone: the token with
# `openssl ts -verify`, the signature with `openssl cms -verify`.
set -euo pipefail
zeph=${ZEPH_BIN:?}
peer="${ZEPH_BUILD:?}/tools/zeph-test-peer"
dir=${ZEPH_DEMO_DIR:?}/timestamp
mkdir -p "$dir"
cd "$dir"

step() { printf '\n$ %s\n' "$*"; "$@"; }
quiet() { "$@" >/dev/null 2>&1; }

echo "== a CA, a signer and a time-stamping authority (ECDSA P-256)"
cat >ext.cnf <<'EOF'
[ca]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign
[signer]
keyUsage = critical, digitalSignature
[tsa]
extendedKeyUsage = critical, timeStamping
keyUsage = critical, digitalSignature
EOF
quiet openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key -out ca.pem \
  -subj "/CN=zeph demo CA" -days 30 -config ext.cnf -extensions ca
for who in signer tsa; do
  quiet openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $who.key -out $who.csr \
    -subj "/CN=zeph demo $who"
  quiet openssl x509 -req -in $who.csr -CA ca.pem -CAkey ca.key -set_serial "0x$(openssl rand -hex 8)" -days 30 \
    -out $who.pem -extfile ext.cnf -extensions $who
done
printf '01\n' >tsa.serial
cat >tsa.cnf <<EOF
[ tsa ]
default_tsa = demo
[ demo ]
dir = $dir
serial = \$dir/tsa.serial
crypto_device = builtin
signer_cert = \$dir/tsa.pem
certs = \$dir/ca.pem
signer_key = \$dir/tsa.key
signer_digest = sha256
default_policy = 1.2.3.4.1
digests = sha256, sha384, sha512, sm3
accuracy = secs:1
ess_cert_id_alg = sha256
EOF
openssl x509 -in tsa.pem -noout -subject -ext extendedKeyUsage

echo
echo "== a contract, signed with openssl smime (detached, DER)"
printf 'Pay 100 to Alice, %s\n' "$(date -u +%Y-%m-%d)" >contract.txt
step openssl smime -sign -binary -in contract.txt -signer signer.pem -inkey signer.key -outform DER -out contract.p7s

echo
echo "== the loopback TSA on 127.0.0.1 (each query answered by openssl ts -reply)"
coproc PEER { exec "$peer" --dir "$dir" --tsa-config "$dir/tsa.cnf"; }
trap 'exec {PEER[1]}>&-; wait' EXIT  # closing its input ends the peer
read -r port <&"${PEER[0]}"
url="http://127.0.0.1:$port/tsa/demo/contract"
echo "listening on port $port"

echo
echo "== stamp: query over the signer's signature, check the reply against the TSA's CA, embed the token"
step "$zeph" tsa stamp "$url" contract.p7s --ca ca.pem --alg sha256 --out contract-stamped.p7s
step "$zeph" tsa show contract-stamped.p7s --out token.der

echo
echo "== OpenSSL checks the token over the signature value, and the signature over the contract"
sig_hex=$(openssl asn1parse -inform DER -in contract.p7s | grep 'OCTET STRING' | tail -n 1 | sed 's/.*\]://')
perl -e 'print pack("H*", $ARGV[0])' "$sig_hex" >signature.bin
step openssl ts -verify -data signature.bin -token_in -in token.der -CAfile ca.pem
step openssl cms -verify -binary -inform DER -in contract-stamped.p7s -content contract.txt -CAfile ca.pem \
  -purpose any -out /dev/null

echo
echo "== a reply that does not chain to the CA given is not embedded"
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout other.key -out other-ca.pem \
  -subj "/CN=some other CA" -days 30 >/dev/null 2>&1
printf '\n$ %s\n' "$zeph tsa stamp $url contract.p7s --ca other-ca.pem"
if "$zeph" tsa stamp "$url" contract.p7s --ca other-ca.pem --out refused.p7s; then
  echo "unexpected: an untrusted stamp was embedded" >&2
  exit 1
fi
if [ -e refused.p7s ]; then
  echo "unexpected: output written on refusal" >&2
  exit 1
fi
echo "(refused, nothing written)"
