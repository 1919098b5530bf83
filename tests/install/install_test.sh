#!/usr/bin/env bash
# Installs the built project into a temporary prefix, compiles a consumer of each installed
# header on its own, links and runs a host that calls into every installed header, builds
# the example host against the installed package and runs it.
# usage: install_test.sh BUILD_DIR SOURCE_DIR [SANITIZE]
set -euo pipefail
build=$1
src=$2
sanitize=${3:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
test -f "$work/prefix/include/kwrecorder/ffmpegplugin.h"
test -f "$work/prefix/lib/pkgconfig/kwrecorder.pc" || test -n "$(ls "$work"/prefix/lib/*/pkgconfig/kwrecorder.pc 2>/dev/null)"
plugin=$(find "$work/prefix" -name libffmpegplugin.so | head -n 1)
test -n "$plugin"

# Only the entry points, the media writer and the snapshot writers are exported.
internal=$(nm -DC --defined-only "$plugin" | grep -E 'FFmpegEncode|VideoDataThread|AudiocaptureThread|RecordThread|SoundTimeline|FrameSchedule' || true)
if [ -n "$internal" ]; then
  echo "internal symbols are exported:" >&2
  echo "$internal" | head -n 5 >&2
  exit 1
fi

pc=$(dirname "$(find "$work/prefix" -name kwrecorder.pc | head -n 1)")
for header in "$work"/prefix/include/kwrecorder/*.h; do
  name=$(basename "$header")
  printf '#include <%s>\n#include <%s>\n' "$name" "$name" > "$work/consumer.cpp"
  # shellcheck disable=SC2046
  g++ -std=c++17 -fPIC -Wall -Werror -fsyntax-only "$work/consumer.cpp" \
    $(PKG_CONFIG_PATH="$pc" pkg-config --define-variable=prefix="$work/prefix" --cflags-only-I kwrecorder) \
    $(pkg-config --cflags Qt5Core libavformat libavcodec) \
    || { echo "installed header $name does not compile on its own" >&2; exit 1; }
done

# The linked host names every installed header: a header added without a call here fails.
for header in "$work"/prefix/include/kwrecorder/*.h; do
  grep -q "#include <$(basename "$header")>" "$src/tests/install/linkhost.cpp" \
    || { echo "linkhost.cpp does not use the installed $(basename "$header")" >&2; exit 1; }
done
sanitizeFlags=()
if [ -n "$sanitize" ]; then
  sanitizeFlags=(-fsanitize="$sanitize")
fi
# shellcheck disable=SC2046
g++ -std=c++17 -fPIC -Wall -Werror "${sanitizeFlags[@]}" "$src/tests/install/linkhost.cpp" -o "$work/linkhost" \
  $(PKG_CONFIG_PATH="$pc" pkg-config --define-variable=prefix="$work/prefix" --cflags-only-I --libs-only-l kwrecorder) \
  $(pkg-config --cflags --libs Qt5Core) $(pkg-config --cflags libavformat libavcodec) "$plugin" -Wl,-rpath,"$(dirname "$plugin")" \
  || { echo "a host does not link against the installed headers and library" >&2; exit 1; }
"$work/linkhost"

flags=()
if [ -n "$sanitize" ]; then
  # The example must carry the same sanitizer runtime as the plugin it loads.
  flags=(-DCMAKE_CXX_FLAGS="-fsanitize=$sanitize" -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=$sanitize")
fi
cmake -S "$src/examples/record_clip" -B "$work/example" -DCMAKE_PREFIX_PATH="$work/prefix" \
  "${flags[@]}" >/dev/null
cmake --build "$work/example" >/dev/null
cd "$work"
"$work/example/record_clip" "$work/clip.mp4"
