#!/usr/bin/env bash
# Sample pictures and a short video for the demo and the end-to-end tests,
# taken from the distribution's OpenCV documentation and scikit-image
# packages into the ignored .cache/media/. Only the three files are kept;
# nothing is installed. Safe to run again: skipped when all are present.
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
media="$root/.cache/media"
# file name -> package that ships it, and its path inside the package
declare -A PACKAGE=(
  [messi5.jpg]=opencv-doc
  [Megamind.avi]=opencv-doc
  [astronaut.png]=python3-skimage
)
declare -A INSIDE=(
  [messi5.jpg]=usr/share/doc/opencv-doc/examples/data/messi5.jpg
  [Megamind.avi]=usr/share/doc/opencv-doc/examples/data/Megamind.avi
  [astronaut.png]=usr/lib/python3/dist-packages/skimage/data/astronaut.png
)

missing=()
for f in "${!PACKAGE[@]}"; do [ -s "$media/$f" ] || missing+=("$f"); done
if [ ${#missing[@]} -eq 0 ]; then
  echo "fetch_media: sample media up to date"
  exit 0
fi

mkdir -p "$media"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"  # apt's download user must be able to write here
packages=()
for f in "${missing[@]}"; do packages+=("${PACKAGE[$f]}"); done
mapfile -t packages < <(printf '%s\n' "${packages[@]}" | sort -u)
if ! (cd "$work" && apt-get download "${packages[@]}" >/dev/null 2>&1); then
  echo "fetch_media: cannot download ${packages[*]}; the demo and media tests will skip (and fail under CI)"
  exit 0
fi
for f in "${missing[@]}"; do
  deb="$(ls "$work/${PACKAGE[$f]}"_*.deb 2>/dev/null | head -1)"
  [ -n "$deb" ] || continue
  # Extract just the one member rather than the whole package.
  if dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$work" "./${INSIDE[$f]}" 2>/dev/null; then
    cp "$work/${INSIDE[$f]}" "$media/$f"
  else
    echo "fetch_media: $f not found in ${PACKAGE[$f]}"
  fi
done
echo "fetch_media: sample media in $media"
exit 0
