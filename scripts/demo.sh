#!/usr/bin/env bash
# Sets up, builds and runs the demo: a test chart through every operation, results in
# build/demo/. Arguments go to `zarvel-aux demo` (image files to use instead of the chart).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$root/build" -j "$(nproc)" --target zarvel-aux
"$root/build/tools/zarvel-aux" demo -o "$root/build/demo" "$@"
