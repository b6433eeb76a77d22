#!/bin/bash
# Runs every benchmark of a build, prints the table and writes it as JSON to
# results.json in the build directory, where the files to work on lie as well.
# Usage: run.sh <build directory> [options of tqbench]
set -eu

build=$(cd "$1" && pwd)
shift
exec "$build/bin/tqbench" --directory "$build" --service "$build/bin/tqdisco" \
  --out "$build/results.json" "$@"
