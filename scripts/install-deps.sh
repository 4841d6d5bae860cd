#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and runs with.
# Quick when everything is already there: apt is asked only for what is missing.
set -euo pipefail

packages=(
  # toolchain
  cmake ninja-build g++ pkg-config ccache
  # report and text
  libjsoncpp-dev libicu-dev
  # image codecs, colour and metadata
  libjpeg62-turbo-dev libspng-dev libtiff-dev libgif-dev libwebp-dev libheif-dev
  libraw-dev liblcms2-dev libexif-dev
  # video
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev
  # tests and micro-benchmarks; the ffmpeg command makes test media
  libgtest-dev libgmock-dev libbenchmark-dev ffmpeg
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}" >&2
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
$sudo apt-get update -q
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
