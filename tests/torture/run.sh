#!/bin/bash
# Runs the campaigns of a build at length, one after the other, and prints their
# reports. Ends with 1 when something broke.
# Usage: run.sh <build directory> <minutes of hostile messages> [seed]
set -u

bin=$(cd "$1" && pwd)/bin
minutes=$2
seed=${3:-$RANDOM}
failed=""

campaign() {
  local name=$1
  shift
  printf '\n=== %s: %s\n' "$name" "$*"
  "$bin/$@" || failed="$failed $name"
}

campaign states crash_states --most 20000 --seed "$seed"
campaign writers kills writers --kills 5000 --seed "$seed"
campaign service kills service --kills 10000 --life 150000 --seed "$seed"
campaign stops stops --stops 5000 --seed "$seed"
campaign lists lists --seconds 120 --seed "$seed"
campaign library faults library --seed "$seed"
campaign serving faults service --most 200 --seed "$seed"
campaign memory allocations --seed "$seed"
campaign first allocations --anew 1 --seed "$seed"
campaign shortage allocations --refused 50 --most 400 --seed "$seed"
campaign clocks clocks 60 "$seed"
campaign messages attacked_service "$((minutes * 60))" "$seed"
campaign mutated mutated_traffic plain "$((minutes * 60))" "$seed"
campaign encrypted mutated_traffic encrypted "$((minutes * 60))" "$seed"

echo
if [ -n "$failed" ]; then
  echo "Broken:$failed (seed $seed)"
  exit 1
fi
echo "Nothing broke (seed $seed)."
