#!/bin/sh
# Installs the packages on two machines of its own, each with a real service
# manager, and looks whether the service does there what it does when it is root's;
# then upgrades, removes and purges it. Only root can make such machines.
# Usage: run.sh <directory with the packages>
set -eu
here=$(cd "$(dirname "$0")" && pwd)
packages=$(realpath "$1")
master=tqm$$
client=tqc$$
machines="$master $client"
# shellcheck disable=SC2034
# A client whose name begins so announces itself without a delay.
hosts="10.27.5.1 master
10.27.5.2 4a"

# Told from a failure by the exit status.
leave_out() {
  echo "LEFT OUT: $*" >&2
  exit 77
}
[ "$(id -u)" = 0 ] || leave_out "only root can make machines to install packages on"

fail() {
  echo "FAILED: $*" >&2
  for machine in $machines; do
    in_machine "$machine" journalctl --no-pager -u tqdisco -n 30 >&2 2>/dev/null || true
  done
  exit 1
}
scratch=$(mktemp -d /var/tmp/tq-packages.XXXXXX)
# shellcheck source=tests/packages/Machine.sh
. "$here/Machine.sh"
trap remove_machines EXIT
trap 'exit 1' INT TERM

ls "$packages"/tessarine-discovery_*.deb >/dev/null

passed() { echo "ok: $*"; }
# is EXPECTED ACTUAL WHAT
is() { [ "$1" = "$2" ] || fail "$3: expected '$1', got '$2'"; }
# await SECONDS WHAT COMMAND...
await() {
  deadline=$(($(date +%s) + $1))
  what=$2
  shift 2
  until "$@" >/dev/null 2>&1; do
    [ "$(date +%s)" -lt "$deadline" ] || fail "$what"
    sleep 0.3
  done
}
# show MACHINE PROPERTY [UNIT]
show() { in_machine "$1" systemctl show --value -p "$2" "${3:-tqdisco}"; }
# Without what debuggers want, which holds on to the rest.
install_packages() { # MACHINE FOLDER
  in_machine "$1" sh -c "dpkg --force-confdef --force-confold -i \$(ls $2/*.deb | grep -v -e -dbgsym_)" \
    >"$scratch/dpkg" 2>&1 || { cat "$scratch/dpkg" >&2; fail "dpkg -i"; }
}
modes() { in_machine "$master" stat -c '%A %U:%G %n' "$@"; }

make_network 10.27.5.1 "$master" 10.27.5.2 "$client" &&
  boot "$master" master || leave_out "no machine with a service manager can be made here"
boot "$client" 4a || fail "the second machine does not boot"

# There is no package before these: one is made of them, older and with another
# sample, which the administrator changes.
in_machine "$master" sh -eu -c '
mkdir /older
cd /older
for package in /packages/*.deb; do
  case $package in *-dbgsym_*) continue ;; esac
  dpkg-deb -R "$package" tree
  sed -i -E -e "s/^Version: .*/Version: 1.0.0-1/; s/\(= [^)]*\)/(= 1.0.0-1)/g" \
    -e "s/(lib(ozf|tqdiscovery)1) \(>= [^)]*\)/\1/g" tree/DEBIAN/control
  [ ! -f tree/etc/tessarine/tq.conf ] || echo "# Of the version before." >>tree/etc/tessarine/tq.conf
  dpkg-deb -b tree "./$(basename "$package" | sed "s/_[^_]*_/_1.0.0-1_/")"
  rm -r tree
done' >"$scratch/older" 2>&1 || { cat "$scratch/older" >&2; fail "no older packages"; }

install_packages "$master" /older
await 30 "the service does not run after the installation" \
  in_machine "$master" systemctl --quiet is-active tqdisco
is enabled "$(in_machine "$master" systemctl is-enabled tqdisco)" "the unit"
is "drwxr-x--- root:tqdisco /etc/tessarine
-rw-r----- root:tqdisco /etc/tessarine/tq.conf
drwxr-x--- tqdisco:tqdisco /var/lib/tessarine/discovery
drwxr-x--- tqdisco:adm /var/log/tessarine" \
  "$(modes /etc/tessarine /etc/tessarine/tq.conf /var/lib/tessarine/discovery /var/log/tessarine)" \
  "what is installed"
passed "installed: started, enabled, closed to others"

# Nobody has named a master yet, which is no reason to be started again and again.
await 30 "the gateway does not wait for a master" in_machine "$master" sh -c \
  'journalctl -u tqdiscoweb | grep -q "Waiting for a master"'
is "active 0" "$(show "$master" ActiveState tqdiscoweb) $(show "$master" NRestarts tqdiscoweb)" \
  "the gateway without a master"
passed "without a master: the gateway waits"

for machine in $machines; do
  [ "$machine" = "$master" ] || install_packages "$machine" /packages
  in_machine "$machine" sh -c 'echo "SERVER = master" >>/etc/tessarine/tq.conf
tqdisco --check-config && systemctl restart tqdisco' >"$scratch/check" 2>&1 ||
    { cat "$scratch/check" >&2; fail "no restart after the configuration"; }
done
await 60 "the client does not report to the master" in_machine "$master" sh -c \
  'tqdiscoctl hosts | grep -q ^4a'
passed "configured: the client reports to the master"

in_machine "$client" sh -eu -c 'cat >/etc/tessarine/explorers.d/greeting
chmod 755 /etc/tessarine/explorers.d/greeting
systemctl reload tqdisco' <<'END'
#!/bin/sh
echo "Says=hello from $TESSARINE_SUBJECT"
echo "Who=$(id -un) $(sed -n -E 's/^CapEff:.//p' /proc/self/status)"
END
await 60 "the facts of a script do not come to the master" in_machine "$master" sh -c \
  'tqdiscoctl items --authority greeting --details | grep -q "hello from 4a"'
in_machine "$master" tqdiscoctl items --authority greeting --details |
  grep -q "tqdisco 0000000000000000" ||
  fail "a script runs as another user than the service, or with its capability"
passed "a script of the client's own: its facts are known to the master"

# What the service sees is what the host has.
pid=$(show "$master" MainPID)
is "$(in_machine "$master" cat /proc/1/mountinfo)" "$(in_machine "$master" cat "/proc/$pid/mountinfo")" \
  "the mounts that the service sees"
is "tqdisco 0000000000000004 0000000000000004 0000000000000004 1 2" \
  "$(in_machine "$master" sh -c "echo \$(ps -o user= -p $pid) \$(sed -n -E \
    's/^(CapEff|CapBnd|CapAmb|NoNewPrivs|Seccomp):.//p' /proc/$pid/status)")" \
  "user, capabilities (effective, of those possible, inherited), no new privileges, filter"
is 0 "$(in_machine "$master" sh -c "awk '/core file/ {print \$5}' /proc/$pid/limits")" "core files"
passed "the service is a user of its own with one capability, and sees the host's mounts"

# The same explorers as root without any of that.
in_machine "$master" sh -eu -c '
mkdir -p /root-service/etc /root-service/lib
cp /usr/kestrel/tessarine/lib/libtqexplorer.so* /root-service/lib
printf "SERVER = master\nORB_PORT.DiscoveryService = 27599\n" >/root-service/etc/tq.conf
TESSARINE_ROOT=/root-service tqdisco >/root-service/log 2>&1 &
echo $! >/root-service/pid'
as_root() { in_machine "$master" env TESSARINE_ROOT=/root-service tqdiscoctl "$@"; }
await 60 "the service of root finds nothing" as_root items --authority service
for authority in filesystem host network service software volume; do
  await 60 "no $authority" in_machine "$master" tqdiscoctl items --authority $authority --subject master
  await 60 "no $authority as root" as_root items --authority $authority
  in_machine "$master" tqdiscoctl items --json --authority $authority --subject master |
    python3 "$here/facts.py" >"$scratch/facts"
  as_root items --json --authority $authority | python3 "$here/facts.py" >"$scratch/root-facts"
  diff "$scratch/root-facts" "$scratch/facts" >&2 || fail "$authority has less than root would find"
  [ -s "$scratch/facts" ] || fail "$authority finds nothing"
done
in_machine "$master" sh -c 'kill $(cat /root-service/pid)'
passed "its explorers find what they find as root"

# What is tested with the packages by others, here as well.
in_machine "$client" sh -eu -c 'cd "$(mktemp -d)"; cat >master; exec sh ./master' \
  <"$here/../../debian/tests/master" >"$scratch/autopkgtest" 2>&1 || { cat "$scratch/autopkgtest" >&2; fail "debian/tests/master"; }
passed "the packages' own test"

gateway() { in_machine "$master" curl --silent --fail "http://127.0.0.1:27580$1"; }
client_is_served() { gateway /api/v1/hosts | grep -q '"host":"4a"'; }
await 90 "the gateway does not know the client" client_is_served
gateway / | grep -q '<html' || fail "the gateway has no page"
gateway /page/vendor/tabulator.js >/dev/null || fail "the gateway lacks the table library"
passed "the gateway: serves the page, and the client's facts"

in_machine "$master" tqdiscoctl put kept by-hand answer=42 >/dev/null
before=$(show "$master" MainPID)
install_packages "$master" /packages
[ "$(show "$master" MainPID)" != "$before" ] || fail "the service is still the old one"
await 30 "the service does not run after the upgrade" \
  in_machine "$master" systemctl --quiet is-active tqdisco
in_machine "$master" grep -q '^SERVER = master' /etc/tessarine/tq.conf || fail "the configuration is lost"
in_machine "$master" test -e /etc/tessarine/tq.conf.dpkg-dist || fail "the new sample is not there"
await 30 "the discovery is lost" in_machine "$master" tqdiscoctl show kept by-hand
passed "upgraded: restarted, configuration and database kept"

in_machine "$master" dpkg --remove tessarine-publish tessarine-discovery-web tessarine-discovery >/dev/null ||
  fail "dpkg --remove"
for program in tqdisco tqdiscoweb tqpublish; do
  ! in_machine "$master" pgrep -x "$program" >/dev/null || fail "$program runs without its package"
done
in_machine "$master" test -s /etc/tessarine/tq.conf || fail "the configuration went with the package"
[ -n "$(in_machine "$master" ls /var/lib/tessarine/discovery)" ] || fail "the database went with the package"
in_machine "$master" dpkg --purge tessarine-publish tessarine-discovery-web tessarine-discovery \
  >"$scratch/purge" 2>&1 || fail "dpkg --purge"
left=$(in_machine "$master" find /etc/tessarine /var/lib/tessarine /var/log/tessarine \
  /usr/kestrel /lib/systemd/system/tqdisco.service /lib/systemd/system/tqdiscoweb.service \
  /lib/systemd/system/tqpublish.service 2>/dev/null || true)
is "" "$left" "what is left after the purge"
passed "removed: stopped, and everything kept; purged: nothing left"
