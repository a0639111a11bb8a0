#!/usr/bin/env bash
# Sets up, builds and runs the demo.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$root/build" -j "$(nproc)" --target zarvel-aux-demo
"$root/build/tools/zarvel-aux-demo" "$@"
