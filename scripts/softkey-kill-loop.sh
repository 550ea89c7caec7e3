#!/usr/bin/env bash
# kill -9 at random moments of PIN checks, signatures and file writes on a
# software key, then checks what survived each kill: the device still loads,
# a PIN counter never rose (only a completed right PIN restores it), no stale
# copy of the state outlives the next connection, and the file holds its old
# or its new content, nothing else.
# usage: softkey-kill-loop.sh BUILD_DIR [ROUNDS]
set -euo pipefail
build=$(cd "${1:?build dir}" && pwd)
rounds=${2:-400}
tool="$build/softkey/zeph-softkey"
zeph="$build/tools/zeph"
work=$(mktemp -d /tmp/zeph-kill-loop-XXXXXX)
trap 'rm -rf "$work"' EXIT
export ZEPH_SOFTKEY_ROOT="$work/root"
unset ZEPH_SOFTKEY_FAULT ZEPH_SOFTKEY_TRACE ZEPH_SOFTKEY_KILL
serial=KILL01 user_pin=87654321 admin_pin=12345678 max=10
state="$ZEPH_SOFTKEY_ROOT/$serial/device.json"
printf '[{"type":0,"vid":"ZS","skfLib":"%s"}]\n' "$build/softkey/libzeph_softkey.so" >"$work/vorli_ukey_cfg.json"

"$tool" create-device --serial $serial >/dev/null
"$tool" create-app --serial $serial --app VorliEcc --admin-pin $admin_pin --user-pin $user_pin \
  --admin-retry $max --user-retry $max >/dev/null
"$tool" gen-key --serial $serial --app VorliEcc --container ECC --alg sm2 --usage both --user-pin $user_pin >/dev/null
"$tool" write-file --serial $serial --app VorliEcc --file KL --text "generation 0" >/dev/null

failures=0
fail() {
  echo "kill-loop: round $1: $2" >&2
  failures=$((failures + 1))
}
remain() { jq -r ".apps[0].$1.remain" "$state"; }
file_text() { jq -r '.apps[0].files[] | select(.name == "KL") | .data' "$state" | base64 -d; }
verify() { "$zeph" pin verify --config "$work" --pin "$1" >/dev/null 2>&1; }

# One operation in the background ($1: pin, sign or write; $2 the new file text).
start() {
  case $1 in
    pin)
      if ((RANDOM % 2)); then
        "$zeph" pin verify --config "$work" --pin 00000000 >/dev/null 2>&1 &
      else
        printf '%s\n%s\n' 99999999 11111111 | "$zeph" pin unlock --config "$work" --pin-stdin >/dev/null 2>&1 &
      fi
      ;;
    sign) printf '%s\n' $user_pin | "$zeph" sign --config "$work" --pin-stdin --data "$2" >/dev/null 2>&1 & ;;
    write) "$tool" write-file --serial $serial --app VorliEcc --file KL --text "$2" >/dev/null 2>&1 & ;;
  esac
}

# Each kill falls somewhere in the operation's own run time, measured here.
declare -A killed=() finished=() span=()
for op in pin sign write; do
  killed[$op]=0
  finished[$op]=0
  t0=$(date +%s%N)
  start $op "generation 0"
  wait $! || true
  span[$op]=$((($(date +%s%N) - t0) / 1000000 + 5))
done
verify $user_pin
done_rounds=0
for ((i = 1; i <= rounds; i++)); do
  done_rounds=$i
  user_before=$(remain user)
  admin_before=$(remain admin)
  text_before=$(file_text)
  text_new="generation $i"
  op=$(printf 'pin\nsign\nwrite\n' | sed -n "$((RANDOM % 3 + 1))p")
  start $op "$text_new"
  pid=$!
  ms=$((RANDOM * 32768 + RANDOM))
  ms=$((ms % ${span[$op]}))
  sleep "$((ms / 1000)).$(printf '%03d' $((ms % 1000)))"
  kill -9 $pid 2>/dev/null || true
  status=0
  wait $pid 2>/dev/null || status=$?
  if ((status == 137)); then
    killed[$op]=$((${killed[$op]} + 1))
  else
    finished[$op]=$((${finished[$op]} + 1))
  fi

  if ! shown=$("$tool" show --serial $serial 2>&1); then
    fail $i "the device no longer loads after $op: $shown"
    break
  fi
  user_after=$(remain user)
  admin_after=$(remain admin)
  if ((admin_after > admin_before)); then fail $i "administrator counter rose $admin_before -> $admin_after ($op)"; fi
  if ((user_after > user_before)) && ! [[ $op == sign && $user_after == "$max" ]]; then
    fail $i "user counter rose $user_before -> $user_after ($op)"
  fi
  text_after=$(file_text)
  if [[ $text_after != "$text_before" && ! ($op == write && $text_after == "$text_new") ]]; then
    fail $i "file holds \"$text_after\" (was \"$text_before\", $op)"
  fi
  # Keep both PINs usable; these checks run to the end.
  ((user_after < 3)) && { verify $user_pin || fail $i "the right user PIN is refused"; }
  if ((admin_after < 3)); then
    printf '%s\n%s\n' $admin_pin $user_pin | "$zeph" pin unlock --config "$work" --pin-stdin >/dev/null 2>&1 ||
      fail $i "the right administrator PIN is refused"
  fi
done

# A connection clears what killed writers left.
verify $user_pin || fail end "the right user PIN is refused"
stale=$(find "$ZEPH_SOFTKEY_ROOT/$serial" -name 'device.json.tmp.*' | wc -l)
((stale == 0)) || fail end "$stale stale state copies after a connection"
"$zeph" sign --config "$work" --pin $user_pin --data final >/dev/null || fail end "the key no longer signs"

echo "kill-loop: windows pin ${span[pin]} ms, sign ${span[sign]} ms, write ${span[write]} ms"
echo "kill-loop: $done_rounds rounds; killed mid-way: pin ${killed[pin]}, sign ${killed[sign]}, write ${killed[write]};" \
  "finished first: pin ${finished[pin]}, sign ${finished[sign]}, write ${finished[write]}; failures: $failures"
((failures == 0))
