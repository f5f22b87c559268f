#!/usr/bin/env bash
# Sets everything up and runs every test: the release build, then the whole
# suite again under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"

scripts/setup.sh

echo "== release build and tests"
scripts/build.sh release -DCMAKE_BUILD_TYPE=Release
ctest --test-dir build/release --output-on-failure -j1

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build and tests"
scripts/build.sh asan -DCMAKE_BUILD_TYPE=Debug -DVA_SANITIZE=ON
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0"
ctest --test-dir build/asan --output-on-failure -j1
