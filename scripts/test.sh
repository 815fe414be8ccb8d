#!/usr/bin/env bash
# Builds everything and runs the whole test suite (unit, wire, network, interop, install).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build test
scripts/build.sh default
ctest --preset default "$@"
