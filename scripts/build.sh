#!/usr/bin/env bash
# Configures and builds the project.
# usage: scripts/build.sh [--qt 5|6] [--sanitize address,undefined|thread] [--dir NAME] [extra cmake args...]
# Build directory: build/ (plain), build-asan/ or build-tsan/, with -qt6 after it for Qt 6
# (build-qt6/), or NAME under the source tree. Qt 5 unless --qt 6.
# Tests and benchmarks are on unless the extra arguments turn them off: every run states
# them, so nothing is inherited from what an earlier command left in the directory's cache.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
qt=5
sanitize=""
dir=""
while [ $# -gt 0 ]; do
  case "$1" in
    --qt) qt=$2; shift 2 ;;
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
  if [ "$qt" != 5 ]; then dir=$dir-qt$qt; fi
fi
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$here" -B "$here/$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRECORDER_WERROR=ON \
  -DKWRECORDER_QT="$qt" -DRECORDER_SANITIZE="$sanitize" -DRECORDER_TESTS=ON -DRECORDER_BENCH=ON "$@" >&2
cmake --build "$here/$dir" -j"$jobs" >&2
echo "$here/$dir"
