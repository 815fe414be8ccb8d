#!/usr/bin/env bash
# Builds everything and runs the whole test suite (unit, wire, network, interop).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh default
ctest --preset default "$@"
