#!/usr/bin/env bash
# A software key for the demo: device 0123ABCD under $ZEPH_DEMO_DIR/softkey
# with the SM2 area (VorliEcc/ECC), an RSA area (VorliRsa/RSA1) and a file,
# shown as a tree. Later steps use it with ZEPH_SOFTKEY_ROOT=$ZEPH_DEMO_DIR/softkey.
set -euo pipefail
tool="$ZEPH_BUILD/softkey/zeph-softkey"
export ZEPH_SOFTKEY_ROOT="$ZEPH_DEMO_DIR/softkey"

step() {
  echo
  echo "\$ zeph-softkey $*"
  "$tool" "$@"
}

step create-device --serial 0123ABCD --label "zeph demo key"
step create-app --serial 0123ABCD --app VorliEcc --admin-pin 12345678 --user-pin 87654321
step gen-key --serial 0123ABCD --app VorliEcc --container ECC --alg sm2 --usage both --user-pin 87654321
step create-app --serial 0123ABCD --app VorliRsa --admin-pin 12345678 --user-pin 87654321
step gen-key --serial 0123ABCD --app VorliRsa --container RSA1 --alg rsa2048 --user-pin 87654321
step write-file --serial 0123ABCD --app VorliEcc --file Version --text "zeph demo 1"
step list
step show --serial 0123ABCD
echo
echo "\$ zeph-softkey export-cert --serial 0123ABCD --app VorliEcc --container ECC | openssl x509 -noout -subject -issuer -dates"
"$tool" export-cert --serial 0123ABCD --app VorliEcc --container ECC | openssl x509 -noout -subject -issuer -dates
echo
echo "\$ zeph-softkey create-app --serial 0123ABCD --app VorliEcc ...   (fails: it exists)"
if "$tool" create-app --serial 0123ABCD --app VorliEcc --admin-pin 12345678 --user-pin 87654321; then
  echo "unexpected success" >&2
  exit 1
fi
