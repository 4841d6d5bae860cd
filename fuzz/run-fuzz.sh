#!/usr/bin/env bash
# Long fuzz runs: run-fuzz.sh <target> <seconds> [extra seed folders...]
#
# Builds the libFuzzer targets with clang in build-fuzz/ (once), then fuzzes
# <target> (e.g. jpeg_decoder_fuzz; "all" runs every target in turn for
# <seconds> each) starting from the committed seeds in fuzz/corpus/ plus any
# extra folders given. New coverage goes to build-fuzz/fuzz-corpus/<target>/;
# crashing, leaking or hanging inputs go to build-fuzz/fuzz-findings/.
# Copy a fixed input into fuzz/regressions/<family>/ so that it is replayed
# as a test from then on. The image decoders run under a small decode budget
# (image-decoder-fuzz.cc), so that no input is slow; leaks of third-party
# libraries are suppressed as in the test suite (scripts/lsan-suppressions.txt).
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -lt 2 ]; then
  echo "usage: $0 <target|all> <seconds> [extra seed folders...]" >&2
  exit 2
fi
target=$1 seconds=$2
shift 2

# What the libraries build with, then what fuzzing alone needs: clang and
# its runtime libraries, libFuzzer's among them.
scripts/install-deps.sh
fuzz_packages=(clang libclang-rt-dev)
missing=()
for package in "${fuzz_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}" >&2
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

build=${TESSERA_FUZZ_BUILD:-build-fuzz}
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DTESSERA_FUZZ=ON -DTESSERA_BUILD_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

all_targets=(argument_parser_fuzz level_config_fuzz icc_profile_fuzz jpeg_decoder_fuzz png_decoder_fuzz tiff_decoder_fuzz
             gif_decoder_fuzz bmp_decoder_fuzz webp_decoder_fuzz heif_decoder_fuzz raw_decoder_fuzz media_fuzz)
if [ "$target" = all ]; then targets=("${all_targets[@]}"); else targets=("$target"); fi

# The input folder of a target: its family for decoders, else its name.
inputs_of() {
  local name=${1%_fuzz}
  echo "${name%_decoder}"
}

cmake --build "$build" -j"$(nproc)" --target "${targets[@]}"
status=0
for t in "${targets[@]}"; do
  inputs=$(inputs_of "$t")
  work="$build/fuzz-corpus/$t"
  findings="$build/fuzz-findings/$t"
  mkdir -p "$work" "$findings"
  echo "== $t for ${seconds}s" >&2
  ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 \
  LSAN_OPTIONS=suppressions=$PWD/scripts/lsan-suppressions.txt \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$build/fuzz/$t" "$work" "fuzz/corpus/$inputs" "$@" \
      -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2560 -max_len=262144 \
      -print_final_stats=1 -artifact_prefix="$findings/" || status=1
done
exit $status
