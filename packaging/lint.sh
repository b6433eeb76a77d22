#!/bin/sh
# Checks the sources with clang-tidy and cppcheck. Usage: lint.sh <build directory>
set -eu
build=$1
sources=$(find ozf discovery scripts explorers host tools web publish -name '*.cpp' | sort)
# cppcheck does not see that a failed assertion throws, and takes for mistakes: a
# reference handed out, a destructor's call of its own class's function, a pointer
# to a function, an object made in place, a second step over a pair of quotes, and what
# a function within a function returns for what the outer one does.
# shellcheck disable=SC2086
cppcheck --quiet --std=c++20 --enable=warning,performance,portability --inline-suppr \
  --error-exitcode=1 --suppress=unknownMacro --suppress=missingInclude \
  --suppress=nullPointerRedundantCheck --suppress=returnTempReference \
  --suppress=virtualCallInConstructor --suppress=danglingTemporaryLifetime \
  --suppress=legacyUninitvar --suppress=StlMissingComparison \
  --suppress=CastIntegerToAddressAtReturn -I . $sources
# shellcheck disable=SC2086
clang-tidy --quiet -p "$build" --extra-arg=-Wno-unknown-warning-option $sources
