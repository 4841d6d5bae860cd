#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite: once in a
# normal build and once under AddressSanitizer + UndefinedBehaviorSanitizer;
# then the tests of the code that runs on several threads once more under
# ThreadSanitizer.
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

# ThreadSanitizer: the logger, the thumbnail job, the pipelined reducer, the
# unreported files, the frame reader and the temporary file names. Only their
# test executables are built, and only their tests run (by label); the first
# race fails the run. Races inside the libraries we do not build are
# suppressed (scripts/tsan-suppressions.txt).
tsan_tests=(tessera_log_test tessera_image_test tessera_file_test tessera_temp_file_test tessera_video_test
            tessera_thumbnail_test)
cmake -S . -B build-tsan -G Ninja -DTESSERA_THREAD_SANITIZER=ON >/dev/null
cmake --build build-tsan -j2 --target "${tsan_tests[@]}"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/scripts/tsan-suppressions.txt \
  ctest --test-dir build-tsan -j2 --output-on-failure --timeout 300 --no-tests=error -L "^($(IFS='|'; echo "${tsan_tests[*]}"))\$"
