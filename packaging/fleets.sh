#!/bin/bash
# Starts two fleets on loopback, each a master with two clients, a PostgreSQL in a directory of its
# own, and tqpublish, which keeps a database there current with both masters; serves until Ctrl-C.
# Usage: fleets.sh <build directory>
set -eu

build=$(cd "$1" && pwd)
bin=$build/bin
fleet=$(mktemp -d "${TMPDIR:-/tmp}/tessarine-fleets-XXXXXX")
port=${PORT:-27511}
# Name, last part of the address, and master. Names begin as in fleet.sh.
hosts="4north:1:4north 23south:2:23south 95web:3:4north 96db:4:4north 125mail:5:23south 95files:6:23south"
postgres=$(find /usr/lib/postgresql -mindepth 2 -maxdepth 2 -name bin 2>/dev/null | sort -V | tail -n 1)
failed=
publisher=
# shellcheck source=packaging/fleet-hosts.sh
. "$(dirname "$0")/fleet-hosts.sh"

# PostgreSQL refuses to be root's.
database()
{
  if [ "$(id -u)" = 0 ]; then
    setpriv --reuid=65534 --regid=65534 --clear-groups "$@"
  else
    "$@"
  fi
}

stop()
{
  # Also when the terminal, or what reads the output, is gone.
  trap '' INT TERM HUP PIPE
  set +e
  echo
  echo "Stopping the fleets ..."
  if [ -n "$publisher" ]; then kill "$publisher" 2>/dev/null; wait "$publisher" 2>/dev/null; fi
  for host in $hosts; do "$fleet/on" "${host%%:*}" stop || true; done
  [ ! -d "$fleet/postgres/data" ] ||
    database "$postgres/pg_ctl" stop -m fast -D "$fleet/postgres/data" > /dev/null 2>&1
  if [ -z "$failed" ]; then rm -rf "$fleet"; fi
}

# Ends a start that has failed. What was logged stays for whoever looks for the reason.
fail()
{
  failed=yes
  printf '%s\nThe logs are kept: %s\n' "$1" "$fleet" >&2
  exit 1
}
trap stop EXIT
trap 'exit 0' INT TERM HUP PIPE
[ -n "$postgres" ] || fail "There is no PostgreSQL here; packaging/install-dependencies.sh brings it."

chmod 755 "$fleet"
addresses="ORB_PORT.DiscoveryService = $port"
for host in $hosts; do
  rest=${host#*:}
  addresses="$addresses
HOST_ADDRESS.${host%%:*} = 127.0.2.${rest%:*}"
done
for host in $hosts; do
  rest=${host#*:}
  makeHost "${host%%:*}" "127.0.2.${rest%:*}" "SERVER = ${rest#*:}
$addresses"
done
makeOn

echo "Starting two fleets on 127.0.2.1 to 127.0.2.6, port $port:"
for host in $hosts; do
  rest=${host#*:}
  printf '  %-8s 127.0.2.%s  of %s\n' "${host%%:*}" "${rest%:*}" "${rest#*:}"
  "$fleet/on" "${host%%:*}" start
  # The masters come first, and the others when they listen.
  if [ "${host%%:*}" = "${rest#*:}" ]; then awaitMaster "$host"; fi
done

mkdir "$fleet/postgres"
[ "$(id -u)" != 0 ] || chown 65534:65534 "$fleet/postgres"
{
  database "$postgres/initdb" -D "$fleet/postgres/data" -N -U fleets -A trust -E UTF8 \
    --locale=C.UTF-8 &&
    database "$postgres/pg_ctl" start -w -D "$fleet/postgres/data" -l "$fleet/postgres/log" \
      -o "-c listen_addresses= -c unix_socket_directories=$fleet/postgres"
} > "$fleet/postgres.start" 2>&1 || fail "PostgreSQL did not start: $(cat "$fleet/postgres.start")"

mkdir -p "$fleet/publish/etc"
cat > "$fleet/publish/etc/tq.conf" <<END
CLIENT_NAME = publish
PUBLISH_MASTERS = 4north
PUBLISH_MASTERS = 23south
PUBLISH_INTERVAL = 5s
PUBLISH_LOG_FILE = $fleet/publish/tqpublish.log
$addresses
END
cat > "$fleet/environment" <<END
export TESSARINE_ROOT=$fleet/publish PGHOST=$fleet/postgres PGUSER=fleets PGDATABASE=postgres
END
# shellcheck source=/dev/null
. "$fleet/environment"
"$bin/tqpublish" migrate || fail "The schema could not be made."
"$bin/tqpublish" &
publisher=$!

ask() { "$postgres/psql" -X -A -t -q -c "$1" 2>/dev/null; }
for _ in $(seq 1 300); do
  hostsThere=$(ask "select count(distinct host) from known where authority = 'filesystem'")
  if [ "$hostsThere" = 6 ]; then break; fi
  kill -0 "$publisher" 2>/dev/null || fail "tqpublish did not start."
  sleep 0.2
done
[ "$hostsThere" = 6 ] || fail "The hosts are not in the database within a minute."

echo
"$postgres/psql" -X -q -c \
  "select name as master, stale, age(now(), heard) as heard, count(*) as discoveries
   from master m join discovery d on d.master_id = m.id and d.gone is null group by m.id"
cat <<END
The fleets go on. In another terminal:

  cd $(printf %q "$fleet")
  export PATH=$(printf %q "$bin"):$(printf %q "$postgres"):\$PATH
  . ./environment

  tqdiscoctl sql                              # where the database is, and what to ask
  psql -c "select * from full_filesystem"
  psql -c "select version, count(*) from package_version where package = 'bash' group by 1"
  psql -c "select host, at, item, fact, before, after from recent_change where event = 'changed'"
  ./on 23south stop                           # a master that is away
  psql -c "select name, stale, reason from master"
  ./on 23south start
  tqpublish usage                             # what it takes
  cat publish/tqpublish.log

Ctrl-C stops all of it and removes $fleet.
END
waitForEnd
