#!/usr/bin/env bash
# Line, function and branch coverage of lib/ and tool/ by the whole test
# suite (tests, fakes and fixtures excluded), with gcc's --coverage and lcov.
#
# Usage: scripts/coverage.sh [build dir]   (default build-coverage)
# Prints lcov's summary; the HTML report is not made (genhtml can make one
# from <build dir>/coverage.info).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-coverage}

scripts/install-deps.sh
if ! command -v lcov >/dev/null; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends lcov
fi

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTESSERA_CCACHE=OFF \
  -DCMAKE_C_FLAGS=--coverage -DCMAKE_CXX_FLAGS=--coverage \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
  -DCMAKE_MODULE_LINKER_FLAGS=--coverage >/dev/null
cmake --build "$build" -j2
find "$build" -name '*.gcda' -delete
# Failing tests still count towards what the suite covers; the suite's own
# verdict is scripts/run-tests.sh's.
ctest --test-dir "$build" -j2 --timeout 600 >"$build/ctest.log" 2>&1 || echo "coverage: some tests failed (see $build/ctest.log)" >&2

lcov_opts=(--rc lcov_branch_coverage=1 --quiet)
lcov "${lcov_opts[@]}" --capture --directory "$build" --base-directory "$PWD" --output-file "$build/all.info" \
  --ignore-errors gcov,source
lcov "${lcov_opts[@]}" --extract "$build/all.info" "$PWD/lib/*" "$PWD/tool/*" --output-file "$build/ours.info"
lcov "${lcov_opts[@]}" --remove "$build/ours.info" '*-test.cc' '*/testing/*' --output-file "$build/coverage.info"
lcov --rc lcov_branch_coverage=1 --summary "$build/coverage.info"
