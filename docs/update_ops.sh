#!/usr/bin/env bash
# Regenerates docs/ops.md from minitf's op registry.
#   docs/update_ops.sh [MINITF_OPS]      (default: build/release/tools/minitf_ops/minitf_ops)
#   docs/update_ops.sh --check MINITF_OPS   exits 1 when docs/ops.md is stale
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
check=0
if [ "${1:-}" = "--check" ]; then check=1; shift; fi
tool="${1:-$root/build/release/tools/minitf_ops/minitf_ops}"

generated="$(mktemp)"
trap 'rm -f "$generated"' EXIT
{
  echo "# Ops supported by minitf"
  echo
  echo "Generated from the op registry by \`docs/update_ops.sh\`; do not edit by hand."
  echo "Types lists the dtypes each type attribute accepts; other attributes are"
  echo "validated as TensorFlow does."
  echo
  "$tool"
} > "$generated"

if [ "$check" = 1 ]; then
  if ! diff -u "$root/docs/ops.md" "$generated"; then
    echo "docs/ops.md is stale: run docs/update_ops.sh"
    exit 1
  fi
else
  cp "$generated" "$root/docs/ops.md"
  echo "wrote docs/ops.md"
fi
