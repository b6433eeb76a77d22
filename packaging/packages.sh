#!/bin/sh
# Makes the Debian packages of these sources. Usage: packages.sh <directory> [<build>]
# With a build of the sources, packages to try out are made of that, in seconds.
set -eu
cd "$(dirname "$0")/.."
mkdir -p "$1"
target=$(realpath "$1")
built=${2:+$(realpath "$2")}

# What is not part of the sources cannot come into a package, and nothing of the
# making stays beside them.
source=$target/source
rm -rf "$source" "$target"/*.deb "$target"/*.changes "$target"/*.buildinfo
mkdir "$source"
if git rev-parse --git-dir >/dev/null 2>&1; then
  git ls-files --cached --others --exclude-standard -z | tar -c --null -T - | tar -x -C "$source"
else
  tar -c --exclude=./build . | tar -x -C "$source"
fi

# What is fetched for the page is fetched here: the tools below need no network.
[ -n "$built" ] || packaging/npm-ci.sh "$source/web/page"

cd "$source"
if ! TQ_BUILT=$built dpkg-buildpackage -us -uc -b >"$target/log" 2>&1; then
  tail -n 40 "$target/log" >&2
  echo "The packages could not be made; $target/log has all of it." >&2
  exit 1
fi
cd "$target"
rm -rf "$source"
[ -n "$built" ] || lintian --fail-on error,warning "$target"/*.changes
ls "$target"/*.deb
