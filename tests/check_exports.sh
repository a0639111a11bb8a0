#!/usr/bin/env bash
# Each shared library exports exactly the functions its version script names.
# Usage: check_exports.sh <library> <version-script>
set -euo pipefail
lib=$1 map=$2
expected=$(sed -n 's/^[[:space:]]*\([A-Za-z_][A-Za-z0-9_]*\);[[:space:]]*$/\1/p' "$map" | sort)
# Defined dynamic symbols, without the version nodes (absolute symbols).
actual=$(nm -D --defined-only "$lib" | awk '$2 != "A" {sub(/@.*/, "", $3); print $3}' | sort -u)
if [[ "$expected" != "$actual" ]]; then
  echo "exports of $lib differ from $map:"
  diff <(echo "$expected") <(echo "$actual") || true
  exit 1
fi
echo "$(basename "$lib"): $(echo "$actual" | wc -l) exports as listed"
