#!/usr/bin/env bash
# Short libFuzzer run of every fuzz target (about 10 s each), starting from the
# committed seed corpora. Fails when a target crashes, leaks or hits undefined
# behaviour. Skipped (exit 0) when clang++ is not installed.
#
#   scripts/fuzz-smoke.sh            build into build/fuzz, then run
#   FUZZ_SECONDS=30 scripts/fuzz-smoke.sh
#
# The seeds are copied to a temporary directory first, so the inputs that
# libFuzzer adds never land in the tree. Crashing inputs are kept in
# build/fuzz/artifacts/<target>/.
set -euo pipefail

cd "$(dirname "$0")/.."
root=$PWD
build=$root/build/fuzz
seconds=${FUZZ_SECONDS:-10}
targets=(
  fuzz_profile_list
  fuzz_profile_with_status
  fuzz_data_and_number
  fuzz_data
  fuzz_integer
  fuzz_text
  fuzz_signal_dispatch
)

if ! command -v clang++ >/dev/null 2>&1 || ! command -v clang >/dev/null 2>&1; then
  echo "fuzz-smoke: clang/clang++ not found, skipped"
  exit 0
fi

CC=clang CXX=clang++ cmake -S "$root" -B "$build" \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DZORVEL_BUILD_FUZZ=ON -DZORVEL_SANITIZE=address,undefined \
  -DZORVEL_BUILD_TESTS=OFF -DZORVEL_BUILD_TOOLS=OFF -DZORVEL_BUILD_EXAMPLES=OFF \
  -DZORVEL_BUILD_BENCH=OFF >"$build.configure.log" 2>&1 || {
  cat "$build.configure.log"
  echo "fuzz-smoke: configuration failed"
  exit 1
}
cmake --build "$build" -j2 --target "${targets[@]}" >"$build.build.log" 2>&1 || {
  tail -n 60 "$build.build.log"
  echo "fuzz-smoke: build failed"
  exit 1
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# GLib 2.74 needs malloc-backed slices for LeakSanitizer to see lost
# GVariant references (the targets also re-exec themselves with it).
export G_SLICE=always-malloc
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# One target per core at a time: each run is bounded by its own clock.
parallel=${ZORVEL_FUZZ_JOBS:-$(nproc)}
run_target() {
  local target=$1 corpus=$work/$1 status=0
  mkdir -p "$corpus" "$build/artifacts/$target"
  cp -R "$root/fuzz/corpus/$target/." "$corpus/"
  # Inputs that once crashed are loaded as a second, read-only corpus.
  local regressions=()
  [[ -d $root/fuzz/regressions/$target ]] && regressions=("$root/fuzz/regressions/$target")
  "$build/fuzz/$target" -max_total_time="$seconds" -timeout=5 -rss_limit_mb=2048 \
    -print_final_stats=1 -dict="$root/fuzz/gvariant.dict" -artifact_prefix="$build/artifacts/$target/" \
    "$corpus" "${regressions[@]}" >"$work/$target.log" 2>&1 || status=$?
  echo "$status" >"$work/$target.status"
}
for target in "${targets[@]}"; do
  while (($(jobs -rp | wc -l) >= parallel)); do wait -n || true; done
  run_target "$target" &
done
wait

passed=0
failed=0
for target in "${targets[@]}"; do
  log=$work/$target.log
  status=$(cat "$work/$target.status" 2>/dev/null || echo 1)
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
  done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -n 1 || true)
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$done_line")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$done_line")
  if [[ $status -eq 0 && -n $runs ]]; then
    passed=$((passed + 1))
    echo "fuzz-smoke: $target ok: ${runs} executions (${speed}/s), cov ${cov:-?}, ft ${ft:-?}"
  else
    failed=$((failed + 1))
    echo "fuzz-smoke: $target FAILED (exit $status, ${runs:-no} executions); log tail:"
    grep -E 'ERROR|SUMMARY|runtime error|check failed|GLib |Test unit written|artifact' "$log" | head -n 20 || true
    tail -n 40 "$log"
  fi
done

echo "fuzz-smoke: $passed passed, $failed failed"
[[ $failed -eq 0 ]]
