# shellcheck shell=bash disable=SC2154
# What the fleets to play with have in common; for the scripts beside this one. They name the
# folder of the fleet in $fleet, the folders of the build in $build and $bin, and its hosts in
# $hosts, a word for each that begins with the host's name and a colon; fail ends them.

checkRunning()
{
  for host in "$@"; do
    "$fleet/on" "${host%%:*}" running || fail "${host%%:*} did not start."
  done
}

# The product root of that host, with those lines in its configuration beside its own.
makeHost() # NAME ADDRESS ENTRIES
{
  root=$fleet/$1
  mkdir -p "$root/etc" "$root/lib/plugins" "$root/log"
  chmod 755 "$root" "$root/lib" "$root/lib/plugins"
  cp "$build"/lib/libtqexplorer.so "$root/lib/"
  cat > "$root/etc/tq.conf" <<END
CLIENT_NAME = $1
ORB_BIND = $2
LOG_LEVEL = 1
LOG_FILE = $root/log/tqdisco.log
$3
END
}

# 0 when something matched and 3 when nothing did: it was asked all the same.
answers() # MASTER
{
  "$fleet/on" "$1" tqdiscoctl --timeout 5 query > "$fleet/answer" 2>&1 || [ $? = 3 ]
}

# A client that meets no master asks again only after five minutes.
awaitMaster() # HOST, as it stands in $hosts
{
  for _ in $(seq 1 150); do
    if answers "${1%%:*}"; then return; fi
    checkRunning "$1"
    sleep 0.2
  done
  fail "The master does not listen: $(cat "$fleet/answer")"
}

# Goes on until a signal ends the script. There is no process to wait for: one that had just been
# begun when the signal came would outlive the script.
waitForEnd()
{
  exec {endless}<> <(:)
  while :; do read -r -t 3600 -u "$endless" || true; done
}

# Makes what the person who plays types: "on HOST start", "on HOST tqdiscoctl ...".
makeOn()
{
  {
    printf '#!/bin/bash\nfleet=%q\nPATH=%q:$PATH\n' "$fleet" "$bin"
    cat <<'EOF'
# on HOST start|stop|kill|hang|resume|log, or on HOST COMMAND ARGUMENTS
set -eu
hosts=$(cd "$fleet" && echo */)
if [ $# -lt 2 ] || [ ! -d "$fleet/$1" ]; then
  echo "usage: on HOST start|stop|kill|hang|resume|log" >&2
  echo "       on HOST tqdiscoctl ...        HOST is one of: ${hosts//\//}" >&2
  exit 2
fi
export TESSARINE_ROOT=$fleet/$1
pidfile=$TESSARINE_ROOT/pid
log=$TESSARINE_ROOT/log/tqdisco.log
# A process that ended may stay listed until somebody collects it.
running()
{
  [ -f "$pidfile" ] && grep -q "^State:[[:space:]]*[^XZ[:space:]]" \
    "/proc/$(cat "$pidfile")/status" 2>/dev/null
}
signal()
{
  if running; then kill "-$1" "$(cat "$pidfile")"; else echo "$host is not running" >&2; exit 1; fi
}
host=$1
case $2 in
start)
  if running; then echo "$host is running already" >&2; exit 1; fi
  # In a session of its own, so that Ctrl-C is for the fleet and not for it.
  setsid tqdisco >> "$log" 2>&1 < /dev/null &
  echo $! > "$pidfile"
  disown
  ;;
stop)
  running || exit 0
  signal TERM
  kill -CONT "$(cat "$pidfile")" 2>/dev/null || true # it may hang
  for _ in $(seq 1 600); do running || exit 0; sleep 0.1; done
  echo "$host does not stop; killing it" >&2
  signal KILL
  ;;
running) running ;;
kill) signal KILL ;;
hang) signal STOP ;;
resume) signal CONT ;;
log) exec less "$log" ;;
*) shift && exec "$@" ;;
esac
EOF
  } > "$fleet/on"
  chmod 755 "$fleet/on"
}
