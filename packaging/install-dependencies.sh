#!/bin/sh
# Installs the Debian packages that the build, the tests and the tools need,
# as far as they are missing. With the argument "lint", "packages" or "tsan" also what
# that needs.
set -eu

packages="g++ cmake ninja-build pkg-config
libomniorb4-dev omniidl libace-dev libxerces-c-dev libspdlog-dev libssl-dev openssl
libcli11-dev nlohmann-json3-dev tao-pegtl-dev libmount-dev libudev-dev libsystemd-dev
libgtest-dev libgmock-dev libbenchmark-dev libsqlite3-dev tcl-combat libfaketime strace iproute2 scdoc gccgo-12 python3
libpqxx-dev postgresql-15
libmicrohttpd-dev libgnutls28-dev zlib1g-dev prometheus-cpp-dev prometheus python3-jsonschema
build-essential debhelper systemd-container procps
clang-14 libclang-rt-14-dev llvm-14 clang-format-14 clang-tidy-14"
# The page: its library is fetched with npm, and its tests need a browser. Node and
# npm may also have come from elsewhere.
packages="$packages chromium fonts-inter jq curl"
command -v node >/dev/null && command -v npm >/dev/null || packages="$packages nodejs npm"
[ "${1:-}" = lint ] && packages="$packages clang-tidy cppcheck"
[ "${1:-}" = packages ] && packages="$packages lintian"
[ "${1:-}" = tsan ] && packages="$packages autoconf dpkg-dev make perl python3"

missing=""
for package in $packages; do
  status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$status" = installed ] || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" = 0 ]; then
  as_root=""
elif command -v sudo >/dev/null; then
  as_root=sudo
else
  echo "These Debian packages are missing, and only root can install them:$missing" >&2
  exit 1
fi

echo "Installing:$missing"
# Set behind sudo, which clears the environment.
apt_get="$as_root env DEBIAN_FRONTEND=noninteractive apt-get"
$apt_get update -qq
# The tests start servers of their own; one of the system's would only take memory.
case "$missing" in
*postgresql-15*)
  $apt_get install -y -qq --no-install-recommends postgresql-common >/dev/null
  $as_root sed -i 's/^#* *create_main_cluster.*/create_main_cluster = false/' \
    /etc/postgresql-common/createcluster.conf
  ;;
esac
# shellcheck disable=SC2086
$apt_get install -y -qq --no-install-recommends $missing >/dev/null
