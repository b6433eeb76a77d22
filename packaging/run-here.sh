#!/bin/bash
# Starts a master on loopback with a product root of its own, and a gateway with the
# page; waits until the explorers have reported, shows what they found on this machine,
# and serves until Ctrl-C. Usage: run-here.sh <build directory>
set -eu

build=$(cd "$1" && pwd)
bin=$build/bin
name=$(hostname)
root=$(mktemp -d "${TMPDIR:-/tmp}/tessarine-XXXXXX")
export TESSARINE_ROOT=$root
port=${PORT:-27511}
web_port=${WEB_PORT:-27580}
service=
gateway=

stop()
{
  # Also when the terminal, or what reads the output, is gone.
  trap '' INT TERM HUP PIPE
  set +e
  if [ -n "$gateway" ] && kill -0 "$gateway" 2>/dev/null; then
    kill -TERM "$gateway"
    wait "$gateway" || true
  fi
  if [ -n "$service" ] && kill -0 "$service" 2>/dev/null; then
    echo
    echo "Stopping tqdisco ..."
    kill -TERM "$service"
    wait "$service" || true
  fi
  rm -rf "$root"
}
trap stop EXIT
trap 'exit 0' INT TERM HUP PIPE

mkdir -p "$root/etc" "$root/lib/plugins" "$root/log"
chmod 755 "$root" "$root/lib" "$root/lib/plugins"
cp "$build"/lib/libtqexplorer.so "$root/lib/"
cat > "$root/etc/tq.conf" <<EOF
SERVER = $name
CLIENT_NAME = $name
HOST_ADDRESS.$name = 127.0.0.1
ORB_BIND = 127.0.0.1
ORB_PORT.DiscoveryService = $port
LOG_LEVEL = 1
LOG_FILE = $root/log/tqdisco.log
WEB_LISTEN = 127.0.0.1:$web_port
WEB_LOG_FILE = $root/log/tqdiscoweb.log
EOF

echo "Starting tqdisco as the master \"$name\" on 127.0.0.1:$port, product root $root"
"$bin/tqdisco" &
service=$!

have() { "$bin/tqdiscoctl" db list --json 2>/dev/null | grep -q "\"authority\": *\"$1\""; }
for _ in $(seq 1 150); do
  if have host && have filesystem; then break; fi
  if ! kill -0 "$service" 2>/dev/null; then
    echo "tqdisco did not start:" >&2
    cat "$root/log/tqdisco.log" >&2 || true
    exit 1
  fi
  sleep 0.2
done
if ! { have host && have filesystem; }; then
  echo "The explorers have not reported within 30 seconds; the log says:" >&2
  cat "$root/log/tqdisco.log" >&2
  exit 1
fi

"$bin/tqdiscoweb" 2>"$root/log/tqdiscoweb.errors" &
gateway=$!
page="The page:  http://127.0.0.1:$web_port/"
answers() { (exec 3<>"/dev/tcp/127.0.0.1/$web_port") 2>/dev/null; }
for _ in $(seq 1 50); do
  if answers || ! kill -0 "$gateway" 2>/dev/null; then break; fi
  sleep 0.1
done
if ! kill -0 "$gateway" 2>/dev/null; then
  page="There is no page, since tqdiscoweb did not start: $(cat "$root/log/tqdiscoweb.errors")"
fi

echo
echo "What the explorers found on this machine:"
echo
"$bin/tqdiscoctl" query
echo
echo "What is in one of them, subject \"$name\", authority \"host\":"
echo
"$bin/tqdiscoctl" show "$name" host
cat <<EOF

$page

The service goes on exploring. In another terminal:

  export TESSARINE_ROOT=$(printf %q "$root") PATH=$(printf %q "$bin"):\$PATH

  tqdiscoctl status           # is it up, and how do the explorers fare?
  tqdiscoctl query            # what is known
  tqdiscoctl items            # what is in it
  tqdiscoctl show $name volume    # the disks, read on demand
  tqdiscoctl db verify        # is every file of the database sound?
  less "\$TESSARINE_ROOT/log/tqdisco.log"

Ctrl-C stops the service and removes the product root.
EOF
wait "$service" || true
