#!/bin/sh
# Installs the npm package candied (a second, independent DBC decoder for the oracle test) under
# the given directory, once. Usage: install_candied.sh DIR
set -e
dir=${1:?usage: install_candied.sh DIR}
if [ -f "$dir/node_modules/candied/package.json" ]; then exit 0; fi
mkdir -p "$dir"
npm install --prefix "$dir" --no-audit --no-fund --loglevel=error candied@2.2.0
