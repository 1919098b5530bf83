#!/usr/bin/env bash
# Builds and runs the whole test suite.
# usage: scripts/test.sh [--qt 5|6] [--sanitize address,undefined|thread] [--with-long] [ctest args...]
# The runs under the label "long" (tens of minutes) are left out unless --with-long.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
args=()
if [ "${1:-}" = "--qt" ]; then
  args=(--qt "$2")
  shift 2
fi
if [ "${1:-}" = "--sanitize" ]; then
  args+=(--sanitize "$2")
  shift 2
fi
select=(-LE long)
if [ "${1:-}" = "--with-long" ]; then
  select=()
  shift
fi
dir=$("$here/scripts/build.sh" "${args[@]}" -DRECORDER_TESTS=ON | tail -n 1)
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$here/tests/tsan.supp}
cd "$dir"
# Two at a time: the long cycles test waits most of its time; every other test holds a
# lock that keeps tests measuring time from running beside each other. A run that finds
# no test has checked nothing: that is a failure, not a pass.
ctest --output-on-failure --no-tests=error --timeout 900 -j2 "${select[@]}" "$@"
