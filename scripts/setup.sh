#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the oracles need, when they are missing.
set -euo pipefail

packages=(
  cmake ninja-build g++ libtsan2 pkg-config clang libclang-rt-14-dev
  libusb-1.0-0-dev libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
  python3 python3-can python3-canmatrix python3-pip python3-setuptools binutils srecord iproute2
  umockdev libumockdev-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

# npm fetches the second DBC oracle; a machine may have Node.js from elsewhere already.
command -v npm >/dev/null 2>&1 || missing+=(nodejs npm)

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
