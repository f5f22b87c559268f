#!/usr/bin/env bash
# Installs everything the project needs to build, test and run, with
# apt-get. Safe to run again: it installs only what is missing.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config
  libprotobuf-dev protobuf-compiler
  libdnnl-dev ocl-icd-opencl-dev  # oneDNN's CMake package requires OpenCL; libdnnl-dev only recommends it
  libopencv-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  nlohmann-json3-dev
  clang libclang-rt-14-dev
  python3 python3-numpy python3-pytest python3-opencv
  python3-onnx  # bench/to_onnx.py, the ONNX Runtime peer's converter
  binutils
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  if [ "$(id -u)" != 0 ]; then SUDO=sudo; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -q
  $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
else
  echo "setup: all packages present"
fi

# Published TF.js models, the pinned TF.js runtime and its reference outputs,
# into the ignored .cache/ (skipped when up to date; tests skip without them).
"$(dirname "$0")/fetch_models.sh"

# Sample pictures and video for the demo and the end-to-end tests.
"$(dirname "$0")/fetch_media.sh"
