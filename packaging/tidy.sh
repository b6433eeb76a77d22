#!/bin/sh
# Checks with clang-tidy what is not committed yet, and the framework that everything
# stands on, many sources at a time as they are compiled in whole builds. All sources take
# longer than the tests: "make lint" checks them.
# Usage: tidy.sh <build directory> <jobs>
set -eu
build=$(realpath "$1")
jobs=$2
commands=$(mktemp -d)
failed=$commands/failed
: >"$failed"
trap 'rm -r "$commands"' EXIT

# What the compiler has read once for many sources is of no use to another one.
sed 's/-Winvalid-pch -include [^ "]*//' "$build/compile_commands.json" \
  >"$commands/compile_commands.json"

together=$(find "$build/ozf/CMakeFiles" -name 'unity_*_cxx.cxx')
[ -n "$together" ] || { echo "clang-tidy: no whole build in $build" >&2; exit 2; }

# One name a line; headers stand for their sources.
sources=$( {
  if git rev-parse --git-dir >/dev/null 2>&1; then
    git diff --name-only HEAD
    git ls-files --others --exclude-standard
  fi | grep -E '^(ozf|discovery|scripts|explorers|host|tools|web|publish)/.*\.(h|cpp)$' | sed 's/\.h$/.cpp/' || true
  for source in ozf/*/*.cpp; do
    # shellcheck disable=SC2086
    grep -qF "/$source\"" $together || echo "$source"
  done
  echo "$together"
} | sort -u | while read -r source; do [ ! -f "$source" ] || echo "$source"; done)

# Flags of a source that is compiled within another are guessed, less the folder of
# what the build makes. Some warnings are known to the compiler alone.
export build commands failed
# shellcheck disable=SC2016
echo "$sources" | xargs -P "$jobs" -n 1 sh -c '
  report=$(clang-tidy-14 --quiet -p "$commands" --extra-arg=-isystem"$build/discovery/idl" \
      --extra-arg=-Wno-unknown-warning-option --checks=-bugprone-suspicious-include \
      --header-filter="/(ozf|discovery|scripts|explorers|host|tools|web|publish)/[^.]*[.](h|cpp)$" \
      "$1" 2>/dev/null) &&
    exit 0
  echo "$report" >&2
  echo "$1" >>"$failed"
' tidy
echo "clang-tidy: looked at $(echo "$sources" | wc -l) sources, those of the framework many at a time"
[ ! -s "$failed" ] || { echo "clang-tidy objects to: $(tr '\n' ' ' <"$failed")" >&2; exit 1; }
