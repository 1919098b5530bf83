#!/usr/bin/env bash
# Installs every Debian 12 package the project needs to build, run, test and benchmark.
# Idempotent and non-interactive; run as root (or through sudo).
set -euo pipefail

PACKAGES=(
  # build
  build-essential cmake pkg-config git
  # Qt 5 Core and moc, and Qt 6's for the build with -DKWRECORDER_QT=6
  qtbase5-dev qtbase5-dev-tools qt6-base-dev qt6-base-dev-tools
  # FFmpeg libraries, and the command-line tools for tests and benchmarks
  libavformat-dev libavcodec-dev libavfilter-dev libavutil-dev libswscale-dev libswresample-dev
  ffmpeg
  # OpenCV core and imgproc; videoio for the demo host's real-camera mode
  libopencv-core-dev libopencv-imgproc-dev libopencv-videoio-dev
  # the camera pictures' conversion to YUV 4:2:0
  libyuv-dev
  # ALSA
  libasound2-dev
  # the sound server client, and the servers the tests record through
  libpulse-dev pulseaudio pulseaudio-utils pipewire pipewire-bin pipewire-pulse wireplumber
  libspa-0.2-modules
  # tests and benchmarks
  libgtest-dev libgmock-dev
  # the fuzzer of the MP4 fragment reader: clang and its libFuzzer runtime
  clang libclang-rt-14-dev
  # a real font for the watermark tests
  fonts-dejavu-core
)

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#PACKAGES[@]} packages already installed"
  exit 0
fi

export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update
$SUDO apt-get install -y --no-install-recommends "${missing[@]}"
echo "install-deps: installed ${missing[*]}"
