#!/usr/bin/env bash
# Configures and builds into build/<name> with the given CMake options.
#   scripts/build.sh release -DCMAKE_BUILD_TYPE=Release
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
name="$1"; shift
cmake -S "$root" -B "$root/build/$name" -G Ninja "$@" >/dev/null
ninja -C "$root/build/$name" -j"$(nproc)"
