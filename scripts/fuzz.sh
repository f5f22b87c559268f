#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) into build-fuzz and runs
# each for a bounded time on a seed corpus made from the test graphs and the
# converted models.
#   scripts/fuzz.sh [seconds per target, default 30]
# A crash stops the script; its input is left in build-fuzz/findings/.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${1:-30}"
build="$root/build-fuzz"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVA_FUZZ=ON >/dev/null
ninja -C "$build" -j"$(nproc)" graph_import_fuzz session_run_fuzz config_fuzz fuzz_make_seeds \
  $(ninja -C "$build" -t targets all | grep -q '^tfjs_model_fuzz:' && echo tfjs_model_fuzz)

seeds="$build/seeds"
rm -rf "$seeds"
"$build/fuzz/fuzz_make_seeds" "$seeds"
# The converted models too, when setup has fetched them (small ones only:
# the fuzzer's default input size limit makes big seeds useless).
for pb in "$root"/.cache/models/*.pb; do
  [ -f "$pb" ] && [ "$(stat -c %s "$pb")" -lt 2000000 ] && cp "$pb" "$seeds/graph/"
done
mkdir -p "$build/findings"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
run() {
  local target="$1" corpus="$2" max_len="$3"
  local work="$build/corpus/$target" log="$build/findings/$target.log"
  mkdir -p "$work"
  echo "== $target ($seconds s)"
  local rc=0
  "$build/fuzz/$target" "$work" "$corpus" -max_total_time="$seconds" -rss_limit_mb=2048 \
    -max_len="$max_len" -artifact_prefix="$build/findings/$target-" -print_final_stats=1 \
    >"$log" 2>&1 || rc=$?
  grep -E "stat::number_of_executed_units|stat::peak_rss_mb|^==[0-9]+==ERROR|^SUMMARY" "$log" || true
  if [ "$rc" -ne 0 ]; then
    tail -n 60 "$log"
    echo "$target found a failure (log: $log)"
    exit 1
  fi
}
run graph_import_fuzz "$seeds/graph" 4000000
run session_run_fuzz "$seeds/graph" 4000000
run config_fuzz "$seeds/config" 4096
if [ -x "$build/fuzz/tfjs_model_fuzz" ]; then
  run tfjs_model_fuzz "$seeds/tfjs" 65536
fi
