#!/usr/bin/env bash
# Sets everything up and runs every test: the release build, then the whole
# suite again under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"

scripts/setup.sh

echo "== release build and tests"
scripts/build.sh release -DCMAKE_BUILD_TYPE=Release -DVA_BUILD_TESTS=ON
ctest --test-dir build/release --output-on-failure --no-tests=error -j1

echo "== Python binding (release build)"
# pytest's exit code 5 (no tests collected) fails the run like any other.
# The system interpreter is the one setup.sh gave numpy and pytest.
python="${VA_PYTHON:-/usr/bin/python3}"
set +e
VIDEOANALYTICS_LIBRARY="$root/build/release/src/libvideoanalytics.so" \
  VA_TEST_DATA="$root/build/release/test_data" \
  "$python" -m pytest -q -p no:cacheprovider "$root/python/tests"
rc=$?
set -e
if [ "$rc" -ne 0 ]; then
  echo "Python tests failed (pytest exit code $rc)"
  exit 1
fi

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build and tests"
scripts/build.sh asan -DCMAKE_BUILD_TYPE=Debug -DVA_SANITIZE=ON
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0"
ctest --test-dir build/asan --output-on-failure --no-tests=error -j1

echo "== ThreadSanitizer build of the runtime's concurrency tests"
# Only the tests that run one session or graph from many threads; the rest
# of the suite gains nothing from TSan and would take long under it.
# oneDNN runs on OpenMP, whose synchronisation TSan cannot see; should it
# report inside libgomp, tests/tsan.supp names that runtime and nothing else.
cmake -S "$root" -B "$root/build-tsan" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVA_TSAN=ON >/dev/null
ninja -C "$root/build-tsan" -j"$(nproc)" minitf_tests va_tests
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/tests/tsan.supp"
# Eight host threads on one model, through the library's C functions.
"$root/build-tsan/tests/va_tests" --gtest_filter='LibraryConcurrency.*'
"$root/build-tsan/tests/minitf_tests" \
  --gtest_filter='SessionTest.ManyThreadsRunOneSession:SessionTest.ConcurrentRunsShareOneStatus:SessionTest.ManySessionsShareOneGraph:DnnlDifferentialTest.ConcurrentRunsShareOneKernel:SessionTest.ThreadCountsAreHonouredWithoutChangingResults:ConvChainEdgeTest.ManyThreadsShareOneFusedPlan:DnnlDifferentialTest.FusedChainMatchesReferenceSteps'

echo "== bounded fuzzing (30 s per target)"
scripts/fuzz.sh 30
