#!/usr/bin/env bash
# Sets everything up, builds, and runs the main job.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
scripts/setup.sh
scripts/build.sh release -DCMAKE_BUILD_TYPE=Release -DVA_BUILD_TESTS=OFF
build/release/tools/minitf_demo "$@"
