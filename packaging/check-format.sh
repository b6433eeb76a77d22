#!/bin/sh
# Checks that the sources are written as .clang-format says.
set -eu
if ! find ozf discovery explorers host tools tests bench examples docs \
    \( -name '*.h' -o -name '*.cpp' \) -print0 |
    xargs -0 -n 50 clang-format-14 --dry-run -Werror; then
  echo "Not formatted as .clang-format says: clang-format-14 -i <file>" >&2
  exit 1
fi
