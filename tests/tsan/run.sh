#!/bin/bash
# Runs the tests of a build for ThreadSanitizer, and tells what it reported in any of
# their processes. Ends with 1 when a test failed or anything was reported.
# Usage: run.sh <build directory> <folder of libraries> <jobs> [argument of ctest]...
set -u

here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd) || exit 2
libraries=$(cd "$2/lib" && pwd) || exit 2
jobs=$3
shift 3
reports=$build/reports

export LD_LIBRARY_PATH=$libraries
# A library that was not built for it would hide what it does, or be accused of it.
for library in libomniORB4 libomnithread libACE libxerces-c; do
  if ! ldd "$build/lib/libozf.so" | grep -q "^[[:space:]]*$library[-.0-9a-z]* => $libraries/"; then
    echo "$build/lib/libozf.so does not take $library from $libraries" >&2
    exit 2
  fi
done

# Each process says it in a file of its own: what it prints itself belongs to the tests.
# Some run as other users.
rm -rf "$reports"
mkdir -p "$reports"
chmod 1777 "$reports"
export TSAN_OPTIONS="suppressions=$here/races.supp:log_path=$reports/report:exitcode=66:\
halt_on_error=0:second_deadlock_stack=1:die_after_fork=0"

# The sanitizer wants its addresses where the kernel may have put the program.
left_out=$(sed '/^#/d;/^$/d' "$here/left-out" | paste -sd'|' -)
status=0
setarch --addr-no-randomize ctest --test-dir "$build" --output-on-failure --no-tests=error \
  --parallel "$jobs" -E "$left_out" "$@" || status=1

count=$(cat "$reports"/* 2>/dev/null | grep -c '^SUMMARY: ThreadSanitizer')
if [ "$count" != 0 ]; then
  echo "ThreadSanitizer reported, in the files of $reports:"
  cat "$reports"/* | grep '^SUMMARY: ThreadSanitizer' | sort | uniq -c | sort -rn
  status=1
else
  echo "ThreadSanitizer reported nothing."
fi
exit $status
