#!/usr/bin/env bash
# Configures the default preset as a fresh machine with the build packages alone would: pkg-config
# sees only libusb, and GoogleTest and Google Benchmark are not found. Then builds and runs the
# demo from that tree. Fails if the main job needs anything of the test packages.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build
pc_dir="$(mktemp -d)"
trap 'rm -rf "$pc_dir"' EXIT
libusb_pc="$(pkg-config --variable=pcfiledir libusb-1.0)/libusb-1.0.pc"
cp "$libusb_pc" "$pc_dir/"
PKG_CONFIG_LIBDIR="$pc_dir" cmake --preset default -B build-fresh \
  -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON >/dev/null
cmake --build build-fresh -j "$(nproc)"
build-fresh/bin/varnel demo
