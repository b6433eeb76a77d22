#!/bin/sh
# Fetches what the package-lock.json in a folder names into its node_modules.
# Nothing that is fetched is run. Usage: npm-ci.sh <directory>
set -eu
cd "$1"
log=$PWD/npm.log
if ! npm ci --ignore-scripts --no-audit --no-fund --loglevel=error >"$log" 2>&1; then
  tail -n 20 "$log" >&2
  exit 1
fi
