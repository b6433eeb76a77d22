#!/bin/sh
# Writes debian/*.symbols anew: what callers link with, each with the version that it came
# with. To be run, and its outcome read, when a change adds to it; one that takes something
# away needs another SONAME besides.
# Versions have a ~ behind them: a symbol that goes in the version that it came with, before
# anybody has that, is missed as well.
# Usage: update-symbols.sh <directory with libraries of a build of packages> <version>
set -eu
cd "$(dirname "$0")/.."

# What is this product's own of functions, classes and their tables, but constants, which
# callers have in themselves. Before each stands a space, or "optional|" where the compiler
# may leave it out: it is in callers as well.
own='Z(T[VIST]|TC|T[hv]n?[0-9]+_(n?[0-9]+_)?)?NK?7Quillon'
own_symbols() {
  nm -D --defined-only "$1" | sed -n -E "s/^[0-9a-f]+ (.) (_$own.*|[a-z].*)/\1 \2/p" | c++filt |
    grep -v -E '::[A-Z_]+$' | sed -E 's/^[VWu] /optional|/; s/^[A-Z] / /' |
    LC_ALL=C sort -t '|' -u | awk '{ name = $0; sub(/^(optional\||.)/, "", name) }
      !(name in known) || /^ / { known[name] = $0 } END { for (name in known) print known[name] }' |
    LC_ALL=C sort
}

# The line that the file has with the text, or else the text with the version.
entry() { # TEXT
  grep -F -- "$1 " "$file" || printf '%s %s~\n' "$1" "$version"
}

version=$2
for package in libozf1 libtqdiscovery1; do
  name=${package%1}
  file=debian/$package.symbols
  touch "$file"
  {
    echo "$name.so.1 $package #MINVER#"
    echo "* Build-Depends-Package: libtqdiscovery-dev"
    # Each caller has templates of others that it uses; the ORB's stubs go by the IDL files.
    entry " (optional=of others|regex)\"^_(?!$own)\""
    entry ' (optional=constants|regex)"^_ZN7Quillon.*[0-9][A-Z_]+E@"'
    own_symbols "$1/$name.so.1" | sed -E 's/^ //' | while IFS= read -r each; do
      symbol=${each#optional|}
      case $symbol in
        *::* | *" "*) entry " (${each%"$symbol"}c++)\"$symbol@Base\"" ;;
        *) entry " $symbol@Base" ;;
      esac
    done
  } >"$file.new"
  mv "$file.new" "$file"
done
