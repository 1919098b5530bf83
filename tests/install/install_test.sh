#!/usr/bin/env bash
# Installs the built project into a temporary prefix, compiles a consumer of each installed
# header on its own, links and runs a host that calls into every installed header, builds
# the example host against the installed package and runs it:
# it records a clip with picture and sound from a simulated card and reads the status.
# With RECORDER_OTHER_QT_BUILD naming a build for the other Qt major version, that build is
# installed beside this one in the same prefix, its example host does the same with its
# plugin, and each host must refuse the other's plugin with Qt's own message.
# usage: install_test.sh BUILD_DIR SOURCE_DIR QT_MAJOR [SANITIZE]
set -euo pipefail
build=$1
src=$2
qt=$3
sanitize=${4:-}
other=${RECORDER_OTHER_QT_BUILD:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fakealsa=$build/tests/fakealsa/libfakealsa.so

fail() { echo "$*" >&2; exit 1; }
# The install names of each Qt's build.
suffix() { if [ "$1" = 5 ]; then echo ""; else echo "-qt$1"; fi; }
package() { if [ "$1" = 5 ]; then echo KwRecorder; else echo "KwRecorderQt$1"; fi; }

# install QT BUILD: installs the build and checks that every file is where that Qt's names say.
install_build() {
  local q=$1 b=$2 s
  s=$(suffix "$q")
  cmake --install "$b" --prefix "$prefix" >/dev/null
  test -f "$prefix/include/kwrecorder$s/ffmpegplugin.h" || fail "no include/kwrecorder$s/ffmpegplugin.h"
  test -n "$(find "$prefix" -path "*/lib*/qt$q/plugins/kwrecorder/libffmpegplugin.so")" \
    || fail "no lib/qt$q/plugins/kwrecorder/libffmpegplugin.so"
  test -n "$(find "$prefix" -path "*/pkgconfig/kwrecorder$s.pc")" || fail "no kwrecorder$s.pc"
  test -n "$(find "$prefix" -path "*/cmake/$(package "$q")/$(package "$q")Config.cmake")" \
    || fail "no $(package "$q") CMake package"
}

# host QT: builds the example host against that Qt's installed package; prints its path.
host() {
  local q=$1 flags=()
  if [ -n "$sanitize" ]; then
    # The example must carry the same sanitizer runtime as the plugin it loads.
    flags=(-DCMAKE_CXX_FLAGS="-fsanitize=$sanitize" -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=$sanitize")
  fi
  cmake -S "$src/examples/record_clip" -B "$work/example$q" -DCMAKE_PREFIX_PATH="$prefix" \
    -DKWRECORDER_QT="$q" "${flags[@]}" >/dev/null
  cmake --build "$work/example$q" >/dev/null
  echo "$work/example$q/record_clip"
}

# record QT: that Qt's host records with its own plugin; the sanitizer runtime must come
# first in a sanitized process, so only a plain run puts the simulated card in front.
record() {
  local q=$1 exe out
  exe=$(host "$q")
  if [ -n "$sanitize" ]; then
    out=$(cd "$work" && "$exe" "$work/clip$q.mp4") || fail "Qt $q host: recording failed: $out"
    return
  fi
  out=$(cd "$work" && FAKEALSA_CARD="KW-08P USBCamera" LD_PRELOAD="$fakealsa" "$exe" "$work/clip$q.mp4") \
    || fail "Qt $q host: recording failed: $out"
  echo "$out" | grep -q ": finished, video+audio," || fail "Qt $q host: status is not a finished recording with sound: $out"
  echo "$out" | grep -q "1 video and 1 audio stream(s)" || fail "Qt $q host: the clip lacks picture or sound: $out"
}

# refuse QT PLUGIN MESSAGE: that Qt's host must not load the plugin, and say Qt's reason.
refuse() {
  local q=$1 plugin=$2 message=$3 err
  if err=$("$work/example$q/record_clip" "$work/refused.mp4" "$plugin" 2>&1); then
    fail "Qt $q host loaded $plugin, built for the other Qt"
  fi
  echo "$err" | grep -qF "$message" || fail "Qt $q host refused $plugin without \"$message\": $err"
}

install_build "$qt" "$build"
plugin=$(find "$prefix" -path "*/qt$qt/plugins/kwrecorder/libffmpegplugin.so")

# Only the entry points, the media writer and the snapshot writers are exported.
internal=$(nm -DC --defined-only "$plugin" | grep -E 'FFmpegEncode|VideoDataThread|AudiocaptureThread|RecordThread|SoundTimeline|FrameSchedule' || true)
if [ -n "$internal" ]; then
  echo "internal symbols are exported:" >&2
  echo "$internal" | head -n 5 >&2
  exit 1
fi

pcname=kwrecorder$(suffix "$qt")
pc=$(dirname "$(find "$prefix" -name "$pcname.pc" | head -n 1)")
PKG_CONFIG_PATH="$pc" pkg-config --print-requires "$pcname" | grep -qx "Qt${qt}Core" \
  || fail "$pcname.pc does not require Qt${qt}Core"
for header in "$prefix/include/$pcname"/*.h; do
  name=$(basename "$header")
  printf '#include <%s>\n#include <%s>\n' "$name" "$name" > "$work/consumer.cpp"
  # shellcheck disable=SC2046
  g++ -std=c++17 -fPIC -Wall -Werror -fsyntax-only "$work/consumer.cpp" \
    $(PKG_CONFIG_PATH="$pc" pkg-config --define-variable=prefix="$prefix" --cflags-only-I "$pcname") \
    $(pkg-config --cflags "Qt${qt}Core" libavformat libavcodec) \
    || { echo "installed header $name does not compile on its own" >&2; exit 1; }
done

# The linked host names every installed header: a header added without a call here fails.
for header in "$prefix/include/$pcname"/*.h; do
  grep -q "#include <$(basename "$header")>" "$src/tests/install/linkhost.cpp" \
    || fail "linkhost.cpp does not use the installed $(basename "$header")"
done
sanitizeFlags=()
if [ -n "$sanitize" ]; then
  sanitizeFlags=(-fsanitize="$sanitize")
fi
# shellcheck disable=SC2046
g++ -std=c++17 -fPIC -Wall -Werror "${sanitizeFlags[@]}" "$src/tests/install/linkhost.cpp" -o "$work/linkhost" \
  $(PKG_CONFIG_PATH="$pc" pkg-config --define-variable=prefix="$prefix" --cflags-only-I --libs-only-l "$pcname") \
  $(pkg-config --cflags --libs "Qt${qt}Core") $(pkg-config --cflags libavformat libavcodec) "$plugin" -Wl,-rpath,"$(dirname "$plugin")" \
  || fail "a host does not link against the installed headers and library"
"$work/linkhost"

record "$qt"

if [ -z "$other" ]; then
  echo "RECORDER_OTHER_QT_BUILD unset: the other Qt's build was not checked beside this one"
  exit 0
fi
otherqt=$(sed -n 's/^KWRECORDER_QT:STRING=//p' "$other/CMakeCache.txt")
otherqt=${otherqt:-5}
[ "$otherqt" != "$qt" ] || fail "$other is built for Qt $qt too"
install_build "$otherqt" "$other"
install_build "$qt" "$build" # nothing of the other's install replaced this one's
otherplugin=$(find "$prefix" -path "*/qt$otherqt/plugins/kwrecorder/libffmpegplugin.so")
record "$otherqt"

# Qt 6 reads a Qt 5 plugin's metadata and names the version; Qt 5 cannot read Qt 6's.
message() { if [ "$1" = 6 ]; then echo "uses incompatible Qt library"; else echo "Failed to extract plugin meta data"; fi; }
refuse "$qt" "$otherplugin" "$(message "$qt")"
refuse "$otherqt" "$plugin" "$(message "$otherqt")"
echo "Qt $qt and Qt $otherqt: both recorded, each refused the other's plugin"
