#!/usr/bin/env bash
# Installs a build tree into a scratch prefix, then builds the example host
# against it twice, with find_package and with pkg-config, and runs both on
# the echo graph (which answers the fed shape and pixels).
#   test_installed_package.sh BUILD_DIR TEST_DATA_DIR
set -euo pipefail
build="$1"
data="$2"
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake --install "$build" --prefix "$prefix" >/dev/null
lib="$(dirname "$(find "$prefix" -name libvideoanalytics.so | head -n1)")"
[ "$lib" != . ] || { echo "libvideoanalytics.so not installed"; exit 1; }
for f in "$prefix/include/videoanalytics.h" "$prefix/include/tensorflow/c/c_api.h" \
         "$lib/libminitf.so" "$lib/pkgconfig/videoanalytics.pc" \
         "$lib/cmake/VideoAnalytics/VideoAnalyticsConfig.cmake"; do
  [ -e "$f" ] || { echo "missing after install: $f"; exit 1; }
done
# Installed libraries must find each other without LD_LIBRARY_PATH.
if ldd "$lib/libvideoanalytics.so" | grep -q "not found"; then
  ldd "$lib/libvideoanalytics.so"; exit 1
fi

# A 2 x 1 picture whose blue follows x: pixels (0, 0, 128) and (127, 0, 128).
expected="values 9: 1 2 3 0 0 128 127 0 128"
check() {
  local out
  out="$("$1" 14 "$data/echo_vector.pb" 2 1)"
  [ "$out" = "$expected" ] || { echo "$2: got '$out', want '$expected'"; exit 1; }
}

cmake -S "$here" -B "$work/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
check "$work/cmake-build/run_model" "find_package build"

export PKG_CONFIG_PATH="$lib/pkgconfig"
libdir="$(pkg-config --variable=libdir videoanalytics)"
# shellcheck disable=SC2046
cc -std=c99 -Wall -Wextra -Werror -o "$work/run_model_pc" "$here/run_model.c" \
  $(pkg-config --cflags --libs videoanalytics) -Wl,-rpath,"$libdir"
check "$work/run_model_pc" "pkg-config build"

# An unknown type code is reported, not crashed on.
if "$work/run_model_pc" 99 "$data/echo_vector.pb" 2>/dev/null; then
  echo "type 99 should fail"; exit 1
fi
echo "installed package OK"
