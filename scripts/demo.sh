#!/usr/bin/env bash
# Builds the plugin and the demo host, then records a short clip with the synthetic camera.
# usage: scripts/demo.sh [demo_host options...]   (default: 5 s of 1280x720 at 30 fps to demo.mp4)
# Builds in build-demo/, without the tests and benchmarks, so that it builds only what the
# clip needs and leaves build/ to the test suite.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
dir=$("$here/scripts/build.sh" --dir build-demo -DRECORDER_TESTS=OFF -DRECORDER_BENCH=OFF | tail -n 1)
"$dir/tools/demo_host" --out "$here/demo.mp4" "$@"
