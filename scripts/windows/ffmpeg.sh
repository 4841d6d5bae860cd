#!/usr/bin/env bash
# Cross-builds a minimal static FFmpeg for mingw-w64: libavformat, libavcodec,
# libavutil and libswscale, with only what reading the tool's video formats
# takes. Called by build-deps.sh, which fetched the Debian source and built
# zlib and dav1d into the prefix first.
#
# Usage: ffmpeg.sh <ffmpeg source dir> <build dir> <prefix> [configure|make]
# With no step, both; build-deps.sh runs the configure step in the background
# while it builds other libraries.
set -euo pipefail

source_dir=$(cd "$1" && pwd)
build=$2
prefix=$3
step=${4:-all}
jobs=$(nproc)
export PKG_CONFIG_LIBDIR=$prefix/lib/pkgconfig PKG_CONFIG_PATH="" PKG_CONFIG_SYSROOT_DIR=""

# Containers of the video extensions the tool reads.
demuxers=(
  mov          # mp4 m4v m4a 3gp 3g2 mov
  matroska     # mkv webm
  avi flv asf  # asf: wmv
  mpegps       # vob mpg mpeg
  mpegts       # ts mts m2ts
  mpegvideo    # m1v m2v raw streams
  ogg rm swf amr ac3 h264 hevc aac mp3 wav
)
# Video decoders only: a thumbnail needs no sound.
decoders=(
  h264 hevc vp8 vp9 libdav1d
  mpeg1video mpeg2video mpeg4 msmpeg4v1 msmpeg4v2 msmpeg4v3
  wmv1 wmv2 wmv3 vc1 flv h263 h263p theora rv10 rv20 rv30 rv40
  mjpeg png bmp gif webp  # embedded cover art
)
parsers=(
  h264 hevc vp8 vp9 av1 mpegvideo mpeg4video vc1 h263 rv30 rv40 vp3
  mjpeg png bmp gif webp
)
# Encoders the tests may write frames with. They are small; an empty list
# leaves FFmpeg without any encoder.
encoders=(mjpeg png)

join() { local IFS=,; echo "$*"; }

if [ "$step" != make ]; then
  rm -rf "$build" && mkdir -p "$build"
  cd "$build"
  started=$SECONDS
  # --disable-autodetect keeps the build from picking up anything on the build
  # machine (and from needing any DLL that a stock Windows lacks); threads and
  # zlib are then asked for by name. Windows' own threads: no winpthread.
  "$source_dir/configure" \
    --prefix="$prefix" \
    --enable-cross-compile --target-os=mingw32 --arch=x86_64 --cross-prefix=x86_64-w64-mingw32- \
    --cc=x86_64-w64-mingw32-gcc-posix --cxx=x86_64-w64-mingw32-g++-posix \
    --pkg-config=pkg-config --pkg-config-flags=--static \
    --extra-cflags="-I$prefix/include" --extra-ldflags="-L$prefix/lib" \
    --enable-static --disable-shared \
    --disable-autodetect --enable-w32threads --enable-zlib --enable-libdav1d \
    --disable-programs --disable-doc --disable-debug \
    --disable-avdevice --disable-avfilter --disable-postproc --disable-swresample \
    --disable-network \
    --disable-everything \
    --enable-protocol=file \
    --enable-demuxer="$(join "${demuxers[@]}")" \
    --enable-decoder="$(join "${decoders[@]}")" \
    --enable-parser="$(join "${parsers[@]}")" \
    ${encoders[@]+--enable-encoder="$(join "${encoders[@]}")"} \
    >configure.log 2>&1 || { tail -n 30 configure.log >&2; exit 1; }
  echo "build-deps: FFmpeg's configure took $((SECONDS - started)) s" >&2
fi

if [ "$step" != configure ]; then
  cd "$build"
  make -j"$jobs" >build.log 2>&1 || { tail -n 30 build.log >&2; exit 1; }
  make install >install.log 2>&1 || { tail -n 30 install.log >&2; exit 1; }
fi
