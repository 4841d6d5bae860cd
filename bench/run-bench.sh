#!/usr/bin/env bash
# Side-by-side benchmark of the tool against the thumbnailers users would pick
# instead (vipsthumbnail, ImageMagick's convert, ffmpegthumbnailer) and against
# the libjpeg-turbo decode floor (djpeg -scale), on a corpus made here with
# Debian's own tools. Prints a table with the ratios and rewrites
# bench/RESULTS.md.
#
#   bench/run-bench.sh [--runs N] [--only NAME[,NAME...]] [--no-results]
#
# Installs the peer tools with apt-get when they are missing (needs root),
# builds the tool in Release into build-bench-release/, and keeps the corpus in
# build-bench-release/bench-corpus/ (made once; delete it to regenerate).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

build_dir=${TESSERA_BENCH_BUILD_DIR:-$root/build-bench-release}
corpus_dir=$build_dir/bench-corpus

# --- peer tools ---------------------------------------------------------------
need=()
for pair in vipsthumbnail:libvips-tools /usr/bin/convert:imagemagick \
            ffmpegthumbnailer:ffmpegthumbnailer djpeg:libjpeg-turbo-progs \
            cjpeg:libjpeg-turbo-progs hyperfine:hyperfine heif-enc:libheif-examples \
            ffmpeg:ffmpeg /usr/bin/time:time python3:python3-minimal; do
  command -v "${pair%%:*}" >/dev/null 2>&1 || need+=("${pair#*:}")
done
if ((${#need[@]})); then
  echo "installing: ${need[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${need[@]}" >&2
fi

# --- the tool, in Release (TESSERA_BENCH_TOOL names an already built one) -------
tool=${TESSERA_BENCH_TOOL:-}
if [[ -z $tool ]]; then
  cmake -S "$root" -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DTESSERA_BUILD_TESTS=OFF >/dev/null
  cmake --build "$build_dir" -j2 --target thumbnail-tool >&2
  tool=$build_dir/tool/thumbnail-tool/thumbnail-tool
fi

# --- corpus ---------------------------------------------------------------------
mkdir -p "$corpus_dir"
"$root/bench/make-corpus.sh" "$corpus_dir" >&2

# --- measure --------------------------------------------------------------------
exec python3 "$root/bench/compare-tools.py" --tool "$tool" --corpus "$corpus_dir" \
     --results "$root/bench/RESULTS.md" "$@"
