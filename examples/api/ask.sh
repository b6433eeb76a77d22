#!/bin/sh
# Asks a query of all hosts and prints the answer as tab-separated lines: the host,
# the item, and the facts that are named. A mistake is shown where it is.
#
#   ask.sh AUTHORITY QUERY FACT...
#   ask.sh filesystem 'Use > 80% and Kind = local' Use Size
#
# Needs curl and jq. TQ_GATEWAY names another gateway, TQ_TOKEN is the token of one
# that wants it. Exits with 0 when something matched, 3 when nothing did, 2 when the
# query has a mistake, 1 when it could not be asked.
set -eu

gateway=${TQ_GATEWAY:-http://127.0.0.1:27580}
[ $# -ge 2 ] || { sed -n '2,6s/^# \{0,1\}//p' "$0" >&2; exit 2; }
authority=$1
query=$2
shift 2

answer=$(mktemp)
trap 'rm -f "$answer"' EXIT

# The token stays out of the list of processes.
header()
{
  [ -z "${TQ_TOKEN:-}" ] || printf 'Authorization: Bearer %s\n' "$TQ_TOKEN"
}
status=$(header | curl --silent --show-error --get --header @- --output "$answer" \
  --write-out '%{http_code}' --header 'Accept: application/jsonl' \
  --data-urlencode "authority=$authority" --data-urlencode "where=$query" \
  "$gateway/api/v1/items") || exit 1

if [ "$status" != 200 ]; then
  jq -r '.detail // .title' "$answer" >&2 2>/dev/null || echo "$gateway answered $status" >&2
  place=$(jq -r '.position // empty | "\(.line) \(.column)"' "$answer" 2>/dev/null || true)
  if [ -n "$place" ]; then
    printf '%s\n' "$query" | sed -n "${place% *}p" >&2
    printf '%*s\n' "${place#* }" '^' >&2
  fi
  [ "$status" = 400 ] && exit 2
  exit 1
fi
[ -s "$answer" ] || exit 3
exec jq -r '. as $item | [.subject, .name, ($ARGS.positional[] as $fact | $item.facts[$fact])] | @tsv' \
  --args "$@" <"$answer"
