#!/usr/bin/env bash
# Sets up, builds and runs every test. With --sanitize the whole suite is built and run with
# address and undefined-behaviour sanitizers (no recovery, leak checks on); with --tsan the
# concurrency test is built and run under the thread sanitizer.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
dir=build sanitize=OFF tsan=OFF
if [[ ${1:-} == --sanitize ]]; then
  dir=build-asan sanitize=ON
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
  export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
elif [[ ${1:-} == --tsan ]]; then
  # Thread sanitizer: only the concurrency test runs there, to keep the pass short.
  dir=build-tsan tsan=ON
  export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
fi
cmake -S "$root" -B "$root/$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZARVEL_SANITIZE=$sanitize \
  -DZARVEL_SANITIZE_THREAD=$tsan -DZARVEL_BUILD_TESTS=ON >/dev/null
if [[ $tsan == ON ]]; then
  cmake --build "$root/$dir" -j "$(nproc)" --target threads_test
  exec ctest --test-dir "$root/$dir" --output-on-failure -R '^threads_test$'
fi
cmake --build "$root/$dir" -j "$(nproc)"
ctest --test-dir "$root/$dir" --output-on-failure -j "$(nproc)"
