#!/bin/bash
# Starts a fleet on loopback, a master, a media server and three clients, each
# with a name, an address and a product root of its own; serves until Ctrl-C.
# With TLS=1 in the environment they call one another with TLS alone, with
# certificates of an authority that is made for this fleet.
# Usage: fleet.sh <build directory>
set -eu

# No service takes files that its user's group may change.
umask 022
build=$(cd "$1" && pwd)
bin=$build/bin
fleet=$(mktemp -d "${TMPDIR:-/tmp}/tessarine-fleet-XXXXXX")
port=${PORT:-27511}
tls=${TLS:-}
master=4master
# Each number is the last part of an address. Hosts whose names begin with
# these digits wait two seconds at most before they announce themselves.
hosts="4master:1 23media:2 95web:3 96db:4 125mail:5"
failed=
# shellcheck source=packaging/fleet-hosts.sh
. "$(dirname "$0")/fleet-hosts.sh"

stop()
{
  # Also when the terminal, or what reads the output, is gone.
  trap '' INT TERM HUP PIPE
  set +e
  echo
  echo "Stopping the fleet ..."
  for host in 125mail 96db 95web 23media 4master; do "$fleet/on" "$host" stop || true; done
  if [ -z "$failed" ]; then rm -rf "$fleet"; fi
}

# Ends a start that has failed. What the hosts logged stays for whoever looks
# for the reason.
fail()
{
  failed=yes
  echo "$1" >&2
  for host in $hosts; do
    log=$fleet/${host%:*}/log/tqdisco.log
    [ ! -s "$log" ] || printf '\n%s, the last lines of %s:\n%s\n' "${host%:*}" "$log" \
      "$(tail -n 10 "$log")" >&2
  done
  printf '\nThe logs are kept: %s/HOST/log/tqdisco.log\n' "$fleet" >&2
  exit 1
}

trap stop EXIT
trap 'exit 0' INT TERM HUP PIPE

# The certificate of a host, which others call by its name and its address.
certify()
{
  openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$1" \
    -keyout "$fleet/$1/etc/host.key" -out "$fleet/tls/$1.csr"
  printf 'subjectAltName=DNS:%s,IP:%s\nextendedKeyUsage=serverAuth,clientAuth\n' "$1" "$2" \
    > "$fleet/tls/$1.ext"
  openssl x509 -req -in "$fleet/tls/$1.csr" -CA "$fleet/tls/ca.pem" -CAkey "$fleet/tls/ca.key" \
    -CAcreateserial -days 90 -extfile "$fleet/tls/$1.ext" -out "$fleet/$1/etc/host.pem"
}

chmod 755 "$fleet"
if [ "$tls" = 1 ]; then
  mkdir "$fleet/tls"
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 90 \
    -subj "/CN=Fleet on loopback" -keyout "$fleet/tls/ca.key" -out "$fleet/tls/ca.pem" \
    2> "$fleet/openssl.log" || fail "No authority was made: $(cat "$fleet/openssl.log")"
fi
entries="SERVER = $master
ORB_PORT.DiscoveryService = $port"
for host in $hosts; do
  entries="$entries
HOST_ADDRESS.${host%:*} = 127.0.1.${host#*:}"
done
for host in $hosts; do
  makeHost "${host%:*}" "127.0.1.${host#*:}" "$entries"
  if [ "$tls" = 1 ]; then
    certify "${host%:*}" "127.0.1.${host#*:}" 2> "$fleet/openssl.log" ||
      fail "No certificate was made: $(cat "$fleet/openssl.log")"
    cat >> "$root/etc/tq.conf" <<EOF
TLS = only
TLS_CERTIFICATE = $root/etc/host.pem
TLS_KEY = $root/etc/host.key
TLS_CA = $fleet/tls/ca.pem
EOF
  fi
done

makeOn

startHost()
{
  role=client
  [ "${1%:*}" != "$master" ] || role="the master"
  [ "${1%:*}" != 23media ] || role="media server"
  printf '  %-8s 127.0.1.%s  %s\n' "${1%:*}" "${1#*:}" "$role"
  "$fleet/on" "${1%:*}" start
}

echo "Starting a fleet on 127.0.1.1 to 127.0.1.5, port $port:"
# The master comes first, and the others when it listens.
startHost "${hosts%% *}"
awaitMaster "${hosts%% *}"
for host in ${hosts#* }; do startHost "$host"; done

# Whether that many services have reported, and that many hosts announced what
# they produce on demand.
count() { "$fleet/on" $master tqdiscoctl query --json "$@" 2>/dev/null | grep -c '"subject"'; }
reported() { [ "$(count --authority service --type client)" = 5 ] &&
             [ "$(count --authority volume --type remotepull)" = 4 ]; }
for _ in $(seq 1 150); do
  if reported; then break; fi
  checkRunning $hosts
  sleep 0.2
done
reported || fail "The hosts have not reported within 30 seconds."

echo
echo "Who is there, as the master sees it:"
echo
"$fleet/on" $master tqdiscoctl status
asked="tqdiscoctl --master 127.0.1.1:$port query"
tells="what the master knows"
if [ "$tls" = 1 ]; then # it takes a certificate to ask
  asked="./on 4master tqdiscoctl tls check 95web"
  tells="how it is to connect"
fi
cat <<EOF

The fleet goes on. In another terminal:

  cd $(printf %q "$fleet")
  export PATH=$(printf %q "$bin"):\$PATH

  $asked     # $tells
  ./on 95web tqdiscoctl hosts                 # the same fleet as 95web sees it
  ./on 95web tqdiscoctl show 96db volume      # disks of 96db, through the master
  ./on 95web tqdiscoctl --verbose show 23media volume   # asked of 23media itself
  ./on 95web tqdiscoctl show 96db network     # interfaces, addresses, name servers of 96db
  ./on 4master tqdiscoctl items --authority listener --where 'port < 1024'
  ./on 4master tqdiscoctl items --authority software --where 'package = "libc6"'
  ./on 4master tqdiscoctl push --all          # move every host's next pass
  ./on 95web hang                             # a host that does not answer
  ./on 95web resume
  ./on 4master stop; ./on 4master start       # a restart of the master
  ./on 96db log                               # the logs: $fleet/HOST/log/tqdisco.log

Ctrl-C stops all of it and removes $fleet.
EOF
waitForEnd
