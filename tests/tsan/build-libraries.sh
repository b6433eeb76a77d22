#!/bin/sh
# Builds omniORB with its TLS transport, ACE and Xerces-C for ThreadSanitizer, from the
# sources of the Debian packages that are installed: the tree is compiled with their
# headers. The libraries come to FOLDER/lib, under the names by which programs look for
# the installed ones; what is there already is kept.
#
#   build-libraries.sh FOLDER [JOBS]
set -eu

folder=${1:?which folder}
jobs=${2:-$(nproc)}
flags='-g1 -O1 -fno-omit-frame-pointer -fsanitize=thread'

mkdir -p "$folder/lib"
folder=$(cd "$folder" && pwd)
work=$folder/work
log=$folder/build.log

# fetch SOURCE: unpacks it in the folder for work, from wherever this machine gets its
# packages. Which those places are is told to an apt-get that has its folders here, so
# that the machine's own lists stay as they are.
fetch() {
  apt=$work/apt
  mkdir -p "$apt/parts" "$apt/lists/partial" "$apt/cache/archives/partial"
  for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ ! -f "$file" ] || sed -n 's/^deb\(-src\)\{0,1\}[[:space:]]/deb-src /p' "$file"
  done | sort -u >"$apt/parts/all.list"
  for file in /etc/apt/sources.list.d/*.sources; do
    [ ! -f "$file" ] || sed 's/^Types:.*/Types: deb-src/' "$file" >"$apt/parts/${file##*/}"
  done
  cat >"$apt/apt.conf" <<END
Dir::Etc::sourcelist "/dev/null";
Dir::Etc::sourceparts "$apt/parts";
Dir::State::lists "$apt/lists";
Dir::Cache "$apt/cache";
APT::Sandbox::User "";
END
  (
    export APT_CONFIG="$apt/apt.conf"
    cd "$work"
    apt-get -q update
    apt-get -q source "$1"
  )
}

# As Debian configures it, with the machine's compiler of IDL.
build_omniorb() {
  # A link would look for its parts beside itself.
  printf '#!/bin/sh\nexec /usr/bin/omniidl "$@"\n' >bin/omniidl
  chmod +x bin/omniidl
  autoconf # which Debian has changed the source of
  ./configure --with-openssl --disable-static PYTHON=/usr/bin/python3 \
    CFLAGS="$flags" CXXFLAGS="$flags" LDFLAGS=-fsanitize=thread
  for part in tool/omkdepend lib/omnithread lib/omniORB; do
    make -C "src/$part" -j "$jobs" export
  done
  find src -name 'libomni*.so.*' -type f -exec cp '{}' "$folder/lib/" ';'
}

# The library alone, of the many that Debian makes of it.
build_ace() {
  ACE_ROOT=$PWD MPC_ROOT=$PWD/MPC
  export ACE_ROOT MPC_ROOT
  cp debian/platform_macros.GNU include/makeinclude/
  cp debian/config.h ace/
  cp debian/default.features bin/MakeProjectCreator/config/
  cd ace
  "$ACE_ROOT/bin/mpc.pl" -type gnuace -noreldefs ace.mpc
  make -f GNUmakefile.ACE -j "$jobs" versioned_so=2 debug=0 optimize=0 \
    CCFLAGS="$flags" CFLAGS="$flags" LDFLAGS=-fsanitize=thread
  cp "$ACE_ROOT"/lib/libACE-*.so "$folder/lib/"
}

# Without what fetches documents, which is never used and would need more packages.
build_xerces() {
  ./configure --disable-static --disable-network --disable-sse2 \
    CFLAGS="$flags" CXXFLAGS="$flags" LDFLAGS=-fsanitize=thread
  make -C src -j "$jobs"
  cp src/.libs/libxerces-c-*.so "$folder/lib/"
}

# build NAME PACKAGE: what the installed package was built from, unless that was done.
build() {
  # shellcheck disable=SC2016
  source=$(dpkg-query -W -f '${source:Package}=${source:Version}' "$2")
  made="$source $flags $(c++ --version | head -n 1)"
  [ "$(cat "$folder/$1.made" 2>/dev/null)" != "$made" ] || return 0
  echo "Building for ThreadSanitizer, once: $source (see $log)"
  rm -rf "$work"
  mkdir -p "$work"
  (
    fetch "$source"
    cd "$work/${source%%=*}"-*/
    "build_$1"
  ) >>"$log" 2>&1
  ldconfig -n "$folder/lib" # under their short names
  rm -rf "$work"
  echo "$made" >"$folder/$1.made"
}

: >"$log"
trap '[ $? = 0 ] || { tail -n 30 "$log"; echo "This failed; $log has it whole."; } >&2' EXIT
build omniorb libomniorb4-dev
build ace libace-dev
build xerces libxerces-c-dev
