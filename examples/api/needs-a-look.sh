#!/bin/sh
# Asks a gateway which hosts need a look: those that are silent, and those with a
# file system that is nearly full. Prints a line for each; needs curl and jq.
#
# needs-a-look.sh [http://127.0.0.1:27580]
set -eu

api=${1:-http://127.0.0.1:27580}/api/v1

# What an answer says of a mistake, if it is one, goes to standard error.
ask()
{
  path=$1
  shift
  curl --silent --show-error --fail-with-body --get "$api/$path" "$@" >"$answer" || {
    jq --raw-output '.detail? // empty' "$answer" >&2 || true
    exit 1
  }
}

answer=$(mktemp)
trap 'rm -f "$answer"' EXIT

ask hosts
jq --raw-output '.hosts[] | select(.silent) |
  [.host, "silent", "last report " + (.latestTime // "unknown")] | @tsv' "$answer"

ask items --header 'Accept: application/jsonl' --data-urlencode authority=filesystem \
  --data-urlencode 'where=kind = local and use >= 90%'
jq --raw-output '[.subject, .name, "use " + (.facts.Use | tostring)] | @tsv' "$answer"
