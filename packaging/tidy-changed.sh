#!/bin/sh
# Checks with clang-tidy what changed last: the sources that are not committed,
# then those of the latest commits, for as long as is given. All sources would
# take longer than the tests; "make lint" checks them.
# Usage: tidy-changed.sh <build directory> <seconds> <jobs>
set -eu
build=$1
end=$(($(date +%s) + $2))
jobs=$3
state=$(mktemp -d)
trap 'rm -rf "$state"' EXIT

# One name a line, the newest first; headers stand for their sources.
changed() {
  git diff --name-only HEAD
  git ls-files --others --exclude-standard
  git log -n 50 --name-only --pretty=format:
}
if git rev-parse --git-dir >/dev/null 2>&1; then
  changed
else
  find ozf discovery explorers host tools -name '*.cpp'
fi | grep -E '^(ozf|discovery|explorers|host|tools)/.*\.(h|cpp)$' | sed 's/\.h$/.cpp/' |
  awk '!seen[$0]++' | while read -r source; do [ ! -f "$source" ] || echo "$source"; done \
  >"$state/sources"

# Stops starting when the time is up, not in the middle of a source.
export build end state
# shellcheck disable=SC2016
xargs -P "$jobs" -n 1 sh -c '
  [ "$(date +%s)" -lt "$end" ] || exit 0
  if ! clang-tidy-14 --quiet -p "$build" "$1" >"$state/$$.log" 2>&1; then
    cat "$state/$$.log" >&2
    echo "$1" >>"$state/failed"
  fi
  echo "$1" >>"$state/checked"
' tidy <"$state/sources"

touch "$state/checked"
echo "clang-tidy: $(wc -l <"$state/checked") of $(wc -l <"$state/sources") sources that changed last"
[ ! -f "$state/failed" ] || { echo "clang-tidy objects to: $(tr '\n' ' ' <"$state/failed")" >&2; exit 1; }
