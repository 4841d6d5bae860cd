#!/usr/bin/env bash
# Cross-builds, for mingw-w64, the libraries that Debian packages only for
# Linux: JsonCpp, ICU's common library (with its stub data: the UTF-8/UTF-16
# conversions need no data), lcms2, GoogleTest, and the codecs: zlib,
# libjpeg-turbo (with its SIMD code), libspng, libtiff, giflib, libwebp,
# libde265 and dav1d under libheif, LibRaw, and a minimal FFmpeg (ffmpeg.sh).
# The sources are the Debian source packages of the versions installed on this
# machine (GoogleTest from /usr/src/googletest), fetched with a scratch apt
# configuration inside the deps folder, so the machine's own apt set-up is
# left untouched.
#
# Everything is static: each library installs lib<name>.a, its headers and a
# pkg-config file into the prefix, whose plain `pkg-config --libs` lists all
# that a program must link (see the end of this script), so an .exe needs no
# DLL beyond Windows' own.
#
# Usage: build-deps.sh <deps dir>. Installs into <deps dir>/prefix; each
# library is built once and then skipped (stamp files), so a warm run is quick.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
toolchain=$here/../../cmake/toolchain-mingw-w64.cmake
deps=$(mkdir -p "$1" && cd "$1" && pwd)
prefix=$deps/prefix
src=$deps/src
mkdir -p "$prefix/lib/pkgconfig" "$prefix/include" "$src" "$deps/build"
jobs=$(nproc)

cross_cmake() {  # <source dir> <build dir> [cmake args...]
  local source=$1 build=$2; shift 2
  cmake -S "$source" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DTESSERA_WINDOWS_DEPS="$prefix" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" \
    -DBUILD_SHARED_LIBS=OFF "$@" >/dev/null
  cmake --build "$build" -j"$jobs" >/dev/null
  cmake --install "$build" >/dev/null
}

# pkg-config, for the builds that are not CMake (Meson, configure scripts),
# answers only from the prefix, as the toolchain file has CMake's do.
export PKG_CONFIG_LIBDIR=$prefix/lib/pkgconfig PKG_CONFIG_PATH="" PKG_CONFIG_SYSROOT_DIR=""
mingw=x86_64-w64-mingw32

cross_meson() {  # <source dir> <build dir> [meson options...]
  local source=$1 build=$2; shift 2
  rm -rf "$build"
  meson setup "$build" "$source" --cross-file "$here/meson-mingw-w64.ini" --prefix "$prefix" --libdir lib \
    --buildtype release --default-library static --wrap-mode nofallback "$@" >/dev/null
  ninja -C "$build" -j"$jobs" >/dev/null
  meson install -C "$build" --no-rebuild >/dev/null
}

# Each library's section: "building" tells what starts, "built" writes the
# stamp and how long it took (the cold build counts against CI's time).
building() { step_start=$SECONDS; echo "build-deps: building $1" >&2; }
built() { touch "$deps/$1.stamp"; echo "build-deps: $1 took $((SECONDS - step_start)) s" >&2; }

# --- scratch apt: the machine's archives, as source entries -------------------
apt_dir=$deps/apt
apt_opts=(
  -o Dir::Etc::SourceList="$apt_dir/sources.list"
  -o Dir::Etc::SourceParts="$apt_dir/sources.list.d"
  -o Dir::State::Lists="$apt_dir/lists"
  -o Dir::Cache="$apt_dir/cache"
  -o Debug::NoLocking=1
)
[ "$(id -u)" -eq 0 ] && apt_opts+=(-o APT::Sandbox::User=root)

apt_ready=""
prepare_apt() {
  [ -n "$apt_ready" ] && return
  rm -rf "$apt_dir"
  mkdir -p "$apt_dir/sources.list.d" "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial"
  : >"$apt_dir/sources.list"
  if [ -f /etc/apt/sources.list ]; then
    sed -n 's/^deb \(.*\)$/deb-src \1/p' /etc/apt/sources.list >>"$apt_dir/sources.list"
  fi
  local f
  for f in /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] && sed -n 's/^deb \(.*\)$/deb-src \1/p' "$f" >>"$apt_dir/sources.list"
  done
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] && sed 's/^Types:.*$/Types: deb-src/' "$f" >"$apt_dir/sources.list.d/$(basename "$f")"
  done
  echo "build-deps: fetching source indexes (scratch apt configuration)" >&2
  apt-get "${apt_opts[@]}" update -q >"$apt_dir/update.log" 2>&1 || {
    cat "$apt_dir/update.log" >&2
    echo "build-deps: apt-get update of the source indexes failed" >&2
    exit 1
  }
  apt_ready=1
}

# The Sources record of version $2 of source package $1, as a .dsc needs it.
source_record() {
  apt-cache "${apt_opts[@]}" showsrc --only-source "$1" 2>/dev/null |
    awk -v v="$2" 'BEGIN { RS = ""; ORS = "\n" } index($0 "\n", "\nVersion: " v "\n") { print; exit }'
}

# A security update's source package has been seen with only its own
# .debian.tar.xz in the archive, the .dsc and the .orig tarball (which it
# shares with the version it updates) missing. Then each missing file is taken
# from another version of the same source that lists the same SHA-256, the
# .dsc is written from the Sources record, every file is checked against that
# record, and dpkg-source unpacks it as apt-get source would have.
assemble_source() {  # <source package> <version> <work dir>
  local source=$1 version=$2 work=$3
  local record
  record=$(source_record "$source" "$version")
  [ -n "$record" ] || return 1
  local sums
  sums=$(printf '%s\n' "$record" | awk '/^[^ ]/ { in_sums = ($1 == "Checksums-Sha256:") } in_sums && /^ / && $3 !~ /\.dsc$/ { print $1, $3 }')
  [ -n "$sums" ] || return 1
  local hash file other
  while read -r hash file; do
    [ -f "$work/$file" ] && [ "$(sha256sum <"$work/$file" | cut -d' ' -f1)" = "$hash" ] && continue
    rm -f "$work/$file"
    for other in $(apt-cache "${apt_opts[@]}" showsrc --only-source "$source" 2>/dev/null |
                   awk -v h="$hash" 'BEGIN { RS = "" } index($0, " " h " ") { if (match($0, /\nVersion: [^\n]*/)) print substr($0, RSTART + 10, RLENGTH - 10) }'); do
      [ "$other" = "$version" ] && continue
      mkdir -p "$work/.other"
      (cd "$work/.other" && apt-get "${apt_opts[@]}" source -q --download-only "$source=$other") >>"$work/.other.log" 2>&1 || true
      [ -f "$work/.other/$file" ] && mv "$work/.other/$file" "$work/$file" && break
    done
    rm -rf "$work/.other"
    [ -f "$work/$file" ] || return 1
  done <<<"$sums"
  (cd "$work" && printf '%s\n' "$sums" | sed 's/ /  /' | sha256sum --quiet -c -) || return 1
  local dsc=$work/${source}_${version#*:}.dsc
  {
    printf '%s\n' "$record" | awk '/^[^ ]/ { keep = ($1 != "Checksums-Sha256:" && $1 != "Directory:") }
                                    keep' | sed 's/^Package:/Source:/'
    echo "Checksums-Sha256:"
    while read -r hash file; do echo " $hash $(stat -c %s "$work/$file") $file"; done <<<"$sums"
    echo "Files:"
    while read -r hash file; do echo " $(md5sum <"$work/$file" | cut -d' ' -f1) $(stat -c %s "$work/$file") $file"; done <<<"$sums"
  } >"$dsc"
  (cd "$work" && dpkg-source -x "$(basename "$dsc")" "$source-$version" >>"$work/.other.log" 2>&1)
}

# Unpacks the Debian source of the installed binary package $1 into $src/$2.
fetch_source() {
  local package=$1 name=$2
  [ -d "$src/$name" ] && return
  prepare_apt
  local version source source_version
  version=$(dpkg-query -W -f='${Version}' "$package")
  source=$(dpkg-query -W -f='${source:Package}' "$package")
  source_version=$(dpkg-query -W -f='${source:Version}' "$package")
  local work=$src/.fetch-$name
  rm -rf "$work" && mkdir -p "$work"
  echo "build-deps: apt-get source $package=$version" >&2
  (cd "$work" && apt-get "${apt_opts[@]}" source -q "$package=$version" >"$work.log" 2>&1) ||
    assemble_source "$source" "$source_version" "$work" || {
    cat "$work.log" >&2
    [ -f "$work/.other.log" ] && cat "$work/.other.log" >&2
    echo "build-deps: could not fetch the source of $package" >&2
    exit 1
  }
  local unpacked
  unpacked=$(find "$work" -mindepth 1 -maxdepth 1 -type d | head -n1)
  [ -n "$unpacked" ] || { echo "build-deps: no source tree for $package" >&2; exit 1; }
  mv "$unpacked" "$src/$name"
  rm -rf "$work" "$work.log"
}

# --- zlib -----------------------------------------------------------------------
if [ ! -f "$deps/zlib.stamp" ]; then
  fetch_source zlib1g-dev zlib
  building "zlib"
  rm -rf "$deps/build/zlib" && cp -r "$src/zlib" "$deps/build/zlib"
  # zlib's configure takes the target from CHOST; only the static library is built.
  (cd "$deps/build/zlib" && CHOST=$mingw CC=$mingw-gcc-posix AR=$mingw-ar RANLIB=$mingw-ranlib CFLAGS=-O2 \
     ./configure --static --prefix="$prefix" >/dev/null && make -j"$jobs" libz.a >/dev/null && make install >/dev/null)
  built zlib
fi

# --- dav1d (AV1, for AVIF in libheif and for FFmpeg) ----------------------------------------
if [ ! -f "$deps/dav1d.stamp" ]; then
  fetch_source libdav1d-dev dav1d
  building "dav1d"
  cross_meson "$src/dav1d" "$deps/build/dav1d" -Denable_tools=false -Denable_tests=false \
    -Denable_examples=false -Denable_docs=false
  built dav1d
fi

# FFmpeg's configure is minutes of one compiler check after another, on one
# core, so it runs in the background beside the next builds as soon as zlib
# and dav1d, which it checks for, are in the prefix; the FFmpeg section at
# the end waits for it and compiles. Should this script stop early, it still
# waits for the configure rather than leave it running.
ffmpeg_configure=""
trap '[ -z "$ffmpeg_configure" ] || wait "$ffmpeg_configure" 2>/dev/null || true' EXIT
if [ ! -f "$deps/ffmpeg.stamp" ]; then
  fetch_source libavcodec-dev ffmpeg
  "$here/ffmpeg.sh" "$src/ffmpeg" "$deps/build/ffmpeg" "$prefix" configure &
  ffmpeg_configure=$!
fi

# --- JsonCpp ------------------------------------------------------------------
if [ ! -f "$deps/jsoncpp.stamp" ]; then
  fetch_source libjsoncpp-dev jsoncpp
  building "JsonCpp"
  cross_cmake "$src/jsoncpp" "$deps/build/jsoncpp" -DJSONCPP_WITH_TESTS=OFF \
    -DJSONCPP_WITH_POST_BUILD_UNITTEST=OFF -DJSONCPP_WITH_PKGCONFIG_SUPPORT=ON \
    -DJSONCPP_WITH_CMAKE_PACKAGE=OFF -DBUILD_STATIC_LIBS=ON -DBUILD_OBJECT_LIBS=OFF
  built jsoncpp
fi

# --- ICU common + stub data -----------------------------------------------------
if [ ! -f "$deps/icu.stamp" ]; then
  fetch_source libicu-dev icu
  icu_source=$src/icu/source
  [ -d "$icu_source/common" ] || icu_source=$src/icu/icu4c/source
  building "ICU's common library (about two minutes)"
  cross_cmake "$here/icu" "$deps/build/icu" -DICU_SOURCE_DIR="$icu_source"
  built icu
fi

# --- lcms2 --------------------------------------------------------------------
if [ ! -f "$deps/lcms2.stamp" ]; then
  fetch_source liblcms2-dev lcms2
  building "lcms2"
  cross_cmake "$here/lcms2" "$deps/build/lcms2" -DLCMS2_SOURCE_DIR="$src/lcms2"
  built lcms2
fi

# --- GoogleTest -----------------------------------------------------------------
if [ ! -f "$deps/googletest.stamp" ]; then
  [ -f /usr/src/googletest/CMakeLists.txt ] || { echo "build-deps: /usr/src/googletest is missing (googletest package)" >&2; exit 1; }
  building "GoogleTest"
  cross_cmake /usr/src/googletest "$deps/build/googletest" -Dgtest_disable_pthreads=OFF
  built googletest
fi

# --- libjpeg-turbo (SIMD with nasm; libjpeg.pc) -----------------------------------
if [ ! -f "$deps/libjpeg-turbo.stamp" ]; then
  fetch_source libjpeg62-turbo-dev libjpeg-turbo
  building "libjpeg-turbo"
  cross_cmake "$src/libjpeg-turbo" "$deps/build/libjpeg-turbo" -DENABLE_SHARED=OFF -DENABLE_STATIC=ON \
    -DWITH_TURBOJPEG=OFF -DWITH_SIMD=ON -DREQUIRE_SIMD=ON -DCMAKE_ASM_NASM_COMPILER=nasm
  built libjpeg-turbo
fi

# --- libspng (spng.pc, with -DSPNG_STATIC) ----------------------------------------
if [ ! -f "$deps/libspng.stamp" ]; then
  fetch_source libspng-dev libspng
  building "libspng"
  cross_meson "$src/libspng" "$deps/build/libspng" -Dbuild_examples=false -Dstatic_zlib=true
  built libspng
fi

# --- libtiff (libtiff-4.pc): deflate and JPEG, old-style JPEG included ---------------
if [ ! -f "$deps/tiff.stamp" ]; then
  fetch_source libtiff-dev tiff
  building "libtiff"
  cross_cmake "$src/tiff" "$deps/build/tiff" -Dtiff-tools=OFF -Dtiff-tests=OFF -Dtiff-contrib=OFF \
    -Dtiff-docs=OFF -Dcxx=OFF -Dzlib=ON -Djpeg=ON -Dold-jpeg=ON -Dlibdeflate=OFF -Dpixarlog=ON \
    -Dlzma=OFF -Dzstd=OFF -Djbig=OFF -Dwebp=OFF -Dlerc=OFF -Djpeg12=OFF -Dsphinx=OFF \
    -DCMAKE_DISABLE_FIND_PACKAGE_OpenGL=ON -DCMAKE_DISABLE_FIND_PACKAGE_GLUT=ON
  built tiff
fi

# --- giflib (gif_lib.h and libgif.a, for CMake's FindGIF) -------------------------------
if [ ! -f "$deps/giflib.stamp" ]; then
  fetch_source libgif-dev giflib
  building "giflib"
  cross_cmake "$here/giflib" "$deps/build/giflib" -DGIFLIB_SOURCE_DIR="$src/giflib"
  built giflib
fi

# --- libwebp (libwebp.pc, libwebpdemux.pc, libwebpmux.pc) -------------------------------
if [ ! -f "$deps/libwebp.stamp" ]; then
  fetch_source libwebp-dev libwebp
  building "libwebp"
  cross_cmake "$src/libwebp" "$deps/build/libwebp" -DWEBP_BUILD_ANIM_UTILS=OFF -DWEBP_BUILD_CWEBP=OFF \
    -DWEBP_BUILD_DWEBP=OFF -DWEBP_BUILD_GIF2WEBP=OFF -DWEBP_BUILD_IMG2WEBP=OFF -DWEBP_BUILD_VWEBP=OFF \
    -DWEBP_BUILD_WEBPINFO=OFF -DWEBP_BUILD_WEBPMUX=OFF -DWEBP_BUILD_EXTRAS=OFF -DWEBP_BUILD_LIBWEBPMUX=ON
  built libwebp
fi

# --- libde265 (HEVC, for libheif) ----------------------------------------------------------
if [ ! -f "$deps/libde265.stamp" ]; then
  fetch_source libde265-dev libde265
  building "libde265"
  cross_cmake "$src/libde265" "$deps/build/libde265" -DENABLE_SDL=OFF -DENABLE_DECODER=OFF -DENABLE_ENCODER=OFF
  built libde265
fi

# --- libheif (libheif.pc): HEIC through libde265, AVIF through dav1d --------------------
# Both decoders are compiled in: a static library has no plugins to load.
# Encoders are not needed.
if [ ! -f "$deps/libheif.stamp" ]; then
  fetch_source libheif-dev libheif
  building "libheif"
  cross_cmake "$src/libheif" "$deps/build/libheif" -DENABLE_PLUGIN_LOADING=OFF -DWITH_EXAMPLES=OFF \
    -DBUILD_TESTING=OFF -DWITH_LIBDE265=ON -DWITH_LIBDE265_PLUGIN=OFF -DWITH_DAV1D=ON -DWITH_DAV1D_PLUGIN=OFF \
    -DWITH_X265=OFF -DWITH_AOM_ENCODER=OFF -DWITH_AOM_DECODER=OFF -DWITH_SvtEnc=OFF -DWITH_RAV1E=OFF
  # libheif's desktop-integration files (GNOME) have no use in this prefix.
  rm -rf "$prefix/share/thumbnailers"
  grep -q 'Requires.private:.*libde265.*dav1d' "$prefix/lib/pkgconfig/libheif.pc" || {
    echo "build-deps: libheif was built without libde265 or dav1d" >&2; exit 1; }
  built libheif
fi

# --- LibRaw (libraw_r.pc) ------------------------------------------------------------------
if [ ! -f "$deps/libraw.stamp" ]; then
  fetch_source libraw-dev libraw
  building "LibRaw"
  cross_cmake "$here/libraw" "$deps/build/libraw" -DLIBRAW_SOURCE_DIR="$src/libraw"
  built libraw
fi

# --- FFmpeg (libavformat, libavcodec, libavutil, libswscale) -------------------------------
if [ ! -f "$deps/ffmpeg.stamp" ]; then
  building "FFmpeg (a few minutes)"
  [ -n "$ffmpeg_configure" ] && wait "$ffmpeg_configure" || { echo "build-deps: FFmpeg's configure failed" >&2; exit 1; }
  ffmpeg_configure=""
  "$here/ffmpeg.sh" "$src/ffmpeg" "$deps/build/ffmpeg" "$prefix" make
  built ffmpeg
fi

# --- pkg-config files for static links ---------------------------------------------------
# The prefix holds static libraries only, so what each .pc keeps for static
# links (Requires.private, Libs.private) is what every link needs: it is
# moved into Requires and Libs, so that a plain `pkg-config --libs`, which is
# what CMake's pkg_check_modules targets link, is enough.
for pc in "$prefix"/lib/pkgconfig/*.pc; do
  grep -q '^\(Requires\|Libs\)\.private:' "$pc" || continue
  awk '
    /^Requires\.private:/ { sub(/^Requires\.private:[ \t]*/, ""); requires_private = $0; next }
    /^Libs\.private:/     { sub(/^Libs\.private:[ \t]*/, ""); libs_private = $0; next }
    { lines[++n] = $0 }
    END {
      for (i = 1; i <= n; i++) {
        line = lines[i]
        if (line ~ /^Requires:/) { has_requires = 1; if (requires_private ~ /[^ \t]/) line = line (line ~ /:[ \t]*$/ ? " " : ", ") requires_private }
        if (line ~ /^Libs:/ && libs_private ~ /[^ \t]/) line = line " " libs_private
        print line
      }
      if (!has_requires && requires_private ~ /[^ \t]/) print "Requires: " requires_private
    }' "$pc" >"$pc.tmp"
  mv "$pc.tmp" "$pc"
done
