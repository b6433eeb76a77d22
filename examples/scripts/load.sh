#!/bin/sh
# How busy the host is: one item.
set -eu
read -r one five fifteen processes _ </proc/loadavg
echo "load1=$one"
echo "load5=$five"
echo "load15=$fifteen"
echo "processes=${processes#*/}"
