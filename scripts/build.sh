#!/usr/bin/env bash
# Configures and builds the project.
# usage: scripts/build.sh [--sanitize address,undefined|thread] [extra cmake args...]
# Build directory: build/ (plain), build-asan/ or build-tsan/.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
sanitize=""
if [ "${1:-}" = "--sanitize" ]; then
  sanitize=$2
  shift 2
fi
case "$sanitize" in
  "") dir=build ;;
  thread) dir=build-tsan ;;
  *) dir=build-asan ;;
esac
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$here" -B "$here/$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRECORDER_WERROR=ON \
  -DRECORDER_SANITIZE="$sanitize" "$@" >&2
cmake --build "$here/$dir" -j"$jobs" >&2
echo "$here/$dir"
