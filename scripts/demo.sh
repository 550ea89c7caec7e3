#!/usr/bin/env bash
# The demo: runs each step script of scripts/demo.d in order against a build.
set -euo pipefail
build=$(cd "${1:?build dir}" && pwd)
root=$(cd "$(dirname "$0")/.." && pwd)
export ZEPH_BUILD="$build"
export ZEPH_BIN="$build/tools/zeph"
export ZEPH_DEMO_DIR=$(mktemp -d /tmp/zeph-demo-XXXXXX)
trap 'rm -rf "$ZEPH_DEMO_DIR"' EXIT
shopt -s nullglob
for step in "$root"/scripts/demo.d/*.sh; do
  echo
  echo "######## $(basename "$step" .sh)"
  bash "$step"
done
echo
echo "demo finished"
