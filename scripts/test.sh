#!/usr/bin/env bash
# Sets up, builds and runs every test. With --sanitize the whole suite is built and run with
# address and undefined-behaviour sanitizers (no recovery, leak checks on).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
dir=build sanitize=OFF
if [[ ${1:-} == --sanitize ]]; then
  dir=build-asan sanitize=ON
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
  export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
fi
cmake -S "$root" -B "$root/$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZARVEL_SANITIZE=$sanitize \
  -DZARVEL_BUILD_TESTS=ON >/dev/null
cmake --build "$root/$dir" -j "$(nproc)"
ctest --test-dir "$root/$dir" --output-on-failure -j "$(nproc)"
