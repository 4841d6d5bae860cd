#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite: once in a
# normal build and once under AddressSanitizer + UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j2
  ctest --test-dir "$dir" -j2 --output-on-failure --timeout 300
}

run_suite build
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  LSAN_OPTIONS=suppressions=$PWD/scripts/lsan-suppressions.txt \
  run_suite build-sanitize -DTESSERA_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
