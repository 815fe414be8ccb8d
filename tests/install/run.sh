#!/usr/bin/env bash
# Installs the build tree ($1) into a scratch prefix, builds consumer.c against it through
# find_package and through pkg-config, and runs both and the installed tool on the virtual adapter.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
cmake --install "$1" --prefix "$prefix" >/dev/null
libdir="$(dirname "$(find "$prefix" -name libvarnel.so.0)")"
usbsim="$libdir/varnel/usbsim"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
version="$(pkg-config --modversion varnel)"
failed=0
check() {  # check WHAT ACTUAL EXPECTED
  if [ "$2" != "$3" ]; then
    printf 'FAILED %s:\n--- got\n%s\n--- expected\n%s\n' "$1" "$2" "$3"
    failed=1
  fi
}

cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DVARNEL_VERSION="$version" >/dev/null
cmake --build "$work/cmake" >/dev/null
# shellcheck disable=SC2046  # pkg-config's flags are separate words
cc -o "$work/consumer-pc" "$here/consumer.c" $(pkg-config --cflags --libs varnel)

expected="libvarnel $version
0x12345678 opened
0x53000001 opened"
for program in "$work/cmake/consumer" "$work/consumer-pc"; do
  check "$program runs" "$(LD_LIBRARY_PATH="$usbsim:$libdir" \
    VARNEL_USBSIM_ADAPTERS=0x12345678,0x53000001 "$program")" "$expected"
  check "$program needs the SONAME" "$(readelf -d "$program" | grep -o 'libvarnel[^]]*')" \
    "libvarnel.so.0"
done
[[ "$version" =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || check "version" "$version" "MAJOR.MINOR.PATCH"

# The installed tool finds its library and the usbsim relative to itself, never the build tree.
tool() { env -u LD_LIBRARY_PATH -u VARNEL_USBSIM_ADAPTERS -u VARNEL_SIM_ACTIVE "$prefix/bin/varnel" "$@" 2>&1; }
check "varnel --version" "$(tool --version)" "varnel $version"
check "varnel-sim --version" "$("$prefix/bin/varnel-sim" --version 2>&1)" "varnel-sim $version"
check "varnel --sim scan" "$(tool --sim scan | head -n 1)" "2 adapter(s) on USB"
check "varnel scan without an adapter" "$(tool scan | sed -n 3p)" \
  "  the udev rules $prefix/lib/udev/rules.d/60-varnel.rules in /etc/udev/rules.d,"
check "the usbsim stays out of the library folder" "$(ls "$libdir" | grep -c libusb || true)" "0"
# Vendor 0x0483, products 31000 and 31001 decimal.
check "udev rules" "$(grep -o 'ATTR{id[A-Za-z]*}=="[0-9a-f]*"' "$prefix/lib/udev/rules.d/60-varnel.rules")" \
  "$(printf 'ATTR{idVendor}=="0483"\nATTR{idProduct}=="%04x"\n' 31000 31001)"

# The Python package, installed offline beside the library (pip --prefix, from a venv that sees
# Debian's python-can), finds the library in its own prefix and reaches the virtual adapter
# through python-can; only the usbsim comes from LD_LIBRARY_PATH.
if ! /usr/bin/python3 -m venv --system-site-packages "$work/venv" >/dev/null 2>&1; then
  check "a venv for the package (python3-venv)" "none" "made"
else
  cp -r "$here/../../python" "$work/python"  # setuptools builds in the source folder
  PIP_NO_INDEX=1 "$work/venv/bin/python" -m pip install -q --no-build-isolation \
    --prefix "$prefix" "$work/python" >/dev/null 2>&1 || check "pip install" "failed" "ok"
  site="$(dirname "$(find "$prefix" -path '*-packages/varnel/__init__.py')")/.."
  check "can.Bus from the installed package" "$(cd "$work" && env -u VARNEL_LIBRARY \
    PYTHONPATH="$site" LD_LIBRARY_PATH="$usbsim" VARNEL_USBSIM_ADAPTERS=0x12345678 \
    "$work/venv/bin/python" -c 'import can, os, varnel.library as l
with can.Bus(interface="varnel", channel="0x12345678:0", bitrate=500000) as bus:
    print(bus.channel_info, os.path.basename(l.lib()._name))' 2>&1)" \
    "VARNEL 0x12345678:0 (CAN, 500000 bit/s) libvarnel.so.0"
fi
exit "$failed"
