#!/usr/bin/env bash
# The Windows build: installs what is missing (mingw-w64 cross compilers,
# Wine and the GStreamer plugins behind Wine's Media Foundation), cross-builds
# the dependencies once (cached in build-windows/deps), builds
# thumbnail-tool.exe and the unit tests with the "windows" CMake preset, and
# runs every test under Wine, the end-to-end checks against the Linux build of
# the tool included. Any failure stops the script with a non-zero status.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 mingw-w64-x86-64-dev
  wine wine64 gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-libav
  dpkg-dev  # apt-get source unpacks with dpkg-source
  nasm meson make  # the cross-built codecs: their SIMD code, Meson and configure/make builds
)
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}" >&2
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
scripts/install-deps.sh  # the Linux side: the reference tool, ffmpeg for test media

build=build-windows
# The cross-built dependencies depend only on Debian's sources and the
# scripts in scripts/windows, so a caller may keep them outside the build
# folder (TESSERA_WINDOWS_DEPS_DIR) to reuse them across fresh clones.
deps=${TESSERA_WINDOWS_DEPS_DIR:-$build/deps}
scripts/windows/build-deps.sh "$deps"
deps=$(cd "$deps" && pwd)

# The Linux tool, whose output the Windows one must reproduce, and the Linux
# end-to-end suites, which run once more against the Windows build.
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j2 --target thumbnail-tool tool_e2e_test bad_input_test video_e2e_test parity_test
linux_tool=$PWD/build/tool/thumbnail-tool/thumbnail-tool

cmake --preset windows -DTESSERA_LINUX_TOOL="$linux_tool" -DTESSERA_LINUX_BUILD="$PWD/build" \
  -DTESSERA_WINDOWS_DEPS="$deps/prefix" >/dev/null
cmake --build --preset windows

# What a Windows machine needs: the .exe and the modules it loads, in one
# folder and one zip. None of them may import a DLL that a stock Windows
# lacks (a C++ runtime, a codec library): they are linked in.
scripts/windows/package.sh "$build/tool/thumbnail-tool" "$build/package"

# One Wine prefix for the whole run, in the build folder; its server and
# services are started once up front, so no test pays for the start-up.
export WINEPREFIX=$PWD/$build/wine-prefix
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree=;mshtml="
wine_fails() { echo "build-windows: Wine does not start ($1)" >&2; exit 1; }
# The first start creates the prefix; its short-lived server is then replaced
# by one that stays until the end of this script.
scripts/windows/wine-run.sh cmd /c exit >/dev/null 2>&1 || wine_fails "creating $WINEPREFIX"
wineserver -w
wineserver -p || wine_fails "wineserver -p"
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
scripts/windows/wine-run.sh cmd /c exit >/dev/null 2>&1 || wine_fails "warm-up"

ctest --preset windows
