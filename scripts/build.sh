#!/usr/bin/env bash
# Configures and builds one preset (default: "default"), installing what the build needs first:
# the default preset needs only the build packages (it builds the tests when GoogleTest is there);
# the sanitizer and fuzz presets build the tests and need the test packages too.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
if [ "$preset" = default ]; then scripts/setup.sh build; else scripts/setup.sh build test; fi
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
