#!/usr/bin/env bash
# Configures and builds the project.
# usage: scripts/build.sh [--sanitize address,undefined|thread] [--dir NAME] [extra cmake args...]
# Build directory: build/ (plain), build-asan/ or build-tsan/, or NAME under the source tree.
# Tests and benchmarks are on unless the extra arguments turn them off: every run states
# them, so nothing is inherited from what an earlier command left in the directory's cache.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
sanitize=""
dir=""
while [ $# -gt 0 ]; do
  case "$1" in
    --sanitize) sanitize=$2; shift 2 ;;
    --dir) dir=$2; shift 2 ;;
    *) break ;;
  esac
done
if [ -z "$dir" ]; then
  case "$sanitize" in
    "") dir=build ;;
    thread) dir=build-tsan ;;
    *) dir=build-asan ;;
  esac
fi
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$here" -B "$here/$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRECORDER_WERROR=ON \
  -DRECORDER_SANITIZE="$sanitize" -DRECORDER_TESTS=ON -DRECORDER_BENCH=ON "$@" >&2
cmake --build "$here/$dir" -j"$jobs" >&2
echo "$here/$dir"
