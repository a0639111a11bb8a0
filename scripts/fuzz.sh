#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, address and undefined-behaviour sanitizers, coverage
# over the whole library) in build-fuzz and runs each for a bounded time: FUZZ_SECONDS each
# (default 60). Exits non-zero when any target finds a crash, leak, timeout or memory blow-up;
# the reproducer is left in build-fuzz/findings/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
seconds=${FUZZ_SECONDS:-60}
dir="$root/build-fuzz"
cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_COMPILER=clang \
  -DCMAKE_CXX_COMPILER=clang++ -DZARVEL_BUILD_FUZZ=ON -DZARVEL_BUILD_TESTS=OFF >/dev/null
targets=(fuzz_load fuzz_frame_ops fuzz_to_tensor fuzz_encode)
cmake --build "$dir" -j "$(nproc)" --target "${targets[@]}" fuzz_make_seeds
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:allocator_may_return_null=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
"$dir/fuzz/fuzz_make_seeds" "$dir/seeds"
mkdir -p "$dir/findings"
failed=()
for t in "${targets[@]}"; do
  mkdir -p "$dir/corpus/$t"
  echo "== $t (${seconds}s)"
  # The time limit allows the largest image the decoder accepts (64 Mi pixels, which a few
  # hundred bytes of run-length coded TGA can describe) to decode with coverage and sanitizer
  # instrumentation on a busy machine: about 0.4 s uninstrumented, up to ten times that here.
  # Inputs that once failed are replayed first, from the checked-in regression corpus.
  extra=()
  [[ -d "$root/fuzz/regressions/$t" ]] && extra+=("$root/fuzz/regressions/$t")
  if ! "$dir/fuzz/$t" "$dir/corpus/$t" "$dir/seeds/$t" "${extra[@]}" -max_total_time="$seconds" -timeout=30 \
      -rss_limit_mb=2048 -max_len=16384 -print_final_stats=1 \
      -artifact_prefix="$dir/findings/$t-" 2>"$dir/findings/$t.log"; then
    failed+=("$t")
    tail -n 60 "$dir/findings/$t.log"
  else
    grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb)' "$dir/findings/$t.log" || true
  fi
done
if ((${#failed[@]} > 0)); then
  echo "fuzzing found problems in: ${failed[*]}" >&2
  exit 1
fi
echo "fuzzing: no findings"
