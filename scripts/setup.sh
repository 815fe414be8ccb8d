#!/usr/bin/env bash
# Installs the Debian packages that are missing for the given groups (default: build):
#   build  the library, the tool and the virtual adapter
#   test   the test suite, the sanitizer and fuzz builds, the benchmarks and the oracles
set -euo pipefail

build_packages=(cmake ninja-build g++ pkg-config libusb-1.0-0-dev libcli11-dev)
test_packages=(
  libgtest-dev libgmock-dev libbenchmark-dev libtsan2 clang libclang-rt-14-dev
  python3 python3-can python3-canmatrix python3-numpy python3-pip python3-setuptools python3-venv
  python3-serial python3-smbus2
  binutils srecord
  iproute2 tmux
  umockdev libumockdev-dev
  libcpp-httplib-dev libjs-chart.js chromium python3-websocket
  tshark
)

packages=()
for group in "${@:-build}"; do
  case "$group" in
    build) packages+=("${build_packages[@]}") ;;
    test) packages+=("${test_packages[@]}") ;;
    *) echo "setup: unknown group $group (build, test)" >&2 && exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

# npm fetches the second DBC oracle; a machine may have Node.js from elsewhere already.
if [[ " $* " == *" test "* ]]; then
  command -v npm >/dev/null 2>&1 || missing+=(nodejs npm)
fi

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
