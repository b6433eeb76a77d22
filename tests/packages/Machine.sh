# Throw-away machines: this one's own root directory under a layer of memory, with
# a network of their own and a real service manager. For root alone. Read by the
# scripts beside this one, which say where ($scratch), what ($packages) and who ($hosts,
# $machines).
# shellcheck shell=sh disable=SC2154

# make_network ADDRESS NAME ADDRESS NAME: two name spaces, joined.
make_network() {
  ip netns add "$2" && ip netns add "$4" && ip -n "$2" link set lo up &&
    ip -n "$4" link set lo up &&
    ip -n "$2" link add tq0 type veth peer name tq0 netns "$4" &&
    ip -n "$2" address add "$1/24" dev tq0 && ip -n "$4" address add "$3/24" dev tq0 &&
    ip -n "$2" link set tq0 up && ip -n "$4" link set tq0 up
}

# boot NAME HOSTNAME: starts the machine of the network of that name; not 0 where that
# cannot be.
boot() {
  machine=$scratch/$1
  mkdir "$machine"
  mount -t tmpfs -o size=2g tq-packages "$machine" || return 1
  mkdir "$machine/changes" "$machine/work" "$machine/root"
  mount -t overlay -o "lowerdir=/,upperdir=$machine/changes,workdir=$machine/work" tq-packages \
    "$machine/root" || return 1
  # What the network of this machine is for is no business of the other.
  printf '127.0.0.1 localhost\n%s\n' "$hosts" >"$machine/root/etc/hosts"
  echo "$2" >"$machine/root/etc/hostname"
  : >"$machine/root/etc/machine-id"
  # With which a container keeps packages from starting what they install.
  rm -f "$machine/root/usr/sbin/policy-rc.d"
  # Without a terminal, and without what this machine runs besides.
  systemd-nspawn --quiet --register=no --keep-unit --kill-signal=SIGRTMIN+4 \
    --network-namespace-path="/run/netns/$1" --hostname="$2" --machine="$1" \
    --directory="$machine/root" --bind-ro="$packages:/packages" \
    /usr/lib/systemd/systemd systemd.unit=basic.target >"$scratch/$1.console" 2>&1 </dev/null &
  echo $! >"$scratch/$1.pid"
  tries=0
  until [ "$(in_machine "$1" systemctl is-system-running 2>/dev/null)" = running ]; do
    tries=$((tries + 1))
    [ $tries -lt 120 ] || { cat "$scratch/$1.console" >&2; return 1; }
    sleep 0.5
  done
}

# in_machine NAME COMMAND...: runs a command there.
in_machine() {
  first=$(pgrep -P "$(cat "$scratch/$1.pid")" | head -n 1)
  [ -n "$first" ] || return 125
  shift
  nsenter --target "$first" --mount --uts --ipc --net --pid --cgroup --root --wdns=/ \
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 TERM=dumb DEBIAN_FRONTEND=noninteractive "$@"
}

# Ends every machine and takes away what was made for it.
remove_machines() {
  for file in "$scratch"/*.pid; do
    [ -f "$file" ] || continue
    kill "$(cat "$file")" 2>/dev/null || true
    tail --pid="$(cat "$file")" -f /dev/null
  done
  for place in "$scratch"/*/root "$scratch"/*/; do
    ! mountpoint -q "$place" || umount -l "$place"
  done
  for name in $machines; do
    ip netns delete "$name" 2>/dev/null || true
  done
  rm -rf --one-file-system "$scratch"
}
