#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests, benchmarks and
# fuzzes with; does nothing when they are all present.
set -euo pipefail
# valgrind: memcheck runs the constant-time test of the SM2 arithmetic.
packages=(g++ gcc make cmake ninja-build pkg-config binutils libssl-dev openssl libcjson-dev
          libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev valgrind
          clang-format)  # clang-format: make format-check
missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
echo "installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
