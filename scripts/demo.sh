#!/usr/bin/env bash
# The main job: builds the library and runs `varnel demo` against the virtual adapter.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh default >/dev/null
exec build/bin/varnel demo "$@"
