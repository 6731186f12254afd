#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with, when any is missing, and the
# extra packages named as arguments (scripts/test-windows.sh adds MinGW-w64 and Wine).
# Idempotent: with everything present it changes nothing and makes no network access.
# Usage: scripts/setup.sh [extra packages...]
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config
  libcurl4-openssl-dev libssl-dev
  libboost-url1.81-dev libmsgsl-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcpp-httplib-dev nginx curl openssl ca-certificates
  clang libclang-rt-14-dev
  doxygen dpkg-dev file
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}" >&2
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -q
"${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
