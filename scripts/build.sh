#!/usr/bin/env bash
# Configures and builds one preset (default: "default"), installing what the build needs first.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
scripts/setup.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
