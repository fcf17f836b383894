#!/usr/bin/env bash
# Replays the inputs in fuzz/regressions/, then runs zorvel_fuzz briefly (30 s)
# from the committed seed corpus. Fails when an input crashes, leaks, hits
# undefined behaviour or breaks a check. Skipped (exit 0) when clang++ is not
# installed.
#
#   scripts/fuzz-smoke.sh            build into build/fuzz, then run
#   FUZZ_SECONDS=120 scripts/fuzz-smoke.sh
#
# The seeds are copied to a temporary directory first, so the inputs that
# libFuzzer adds never land in the tree. Crashing inputs are kept in
# build/fuzz/artifacts/.
set -euo pipefail

cd "$(dirname "$0")/.."
root=$PWD
build=$root/build/fuzz
seconds=${FUZZ_SECONDS:-30}
fuzzer=$build/fuzz/zorvel_fuzz

if ! command -v clang++ >/dev/null 2>&1 || ! command -v clang >/dev/null 2>&1; then
  echo "fuzz-smoke: clang/clang++ not found, skipped"
  exit 0
fi

mkdir -p "$build/artifacts"
CC=clang CXX=clang++ cmake -S "$root" -B "$build" \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DZORVEL_BUILD_FUZZ=ON -DZORVEL_SANITIZE=address,undefined \
  -DZORVEL_BUILD_TESTS=OFF -DZORVEL_BUILD_TOOLS=OFF -DZORVEL_BUILD_EXAMPLES=OFF \
  -DZORVEL_BUILD_BENCH=OFF >"$build/configure.log" 2>&1 || {
  cat "$build/configure.log"
  echo "fuzz-smoke: configuration failed"
  exit 1
}
cmake --build "$build" -j2 --target zorvel_fuzz >"$build/build.log" 2>&1 || {
  tail -n 60 "$build/build.log"
  echo "fuzz-smoke: build failed"
  exit 1
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# GLib 2.74 needs malloc-backed slices for LeakSanitizer to see lost
# GVariant references (the target also re-execs itself with it).
export G_SLICE=always-malloc
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
options=(-timeout=5 -rss_limit_mb=2048 -artifact_prefix="$build/artifacts/")

passed=0
failed=0
fail() {
  failed=$((failed + 1))
  echo "fuzz-smoke: $1 FAILED; log tail:"
  grep -E 'ERROR|SUMMARY|runtime error|check failed|GLib|Test unit written|artifact' "$2" | head -n 20 || true
  tail -n 40 "$2"
}

# Inputs that once crashed, each run once.
regressions=("$root"/fuzz/regressions/*)
if "$fuzzer" "${options[@]}" "${regressions[@]}" >"$work/regressions.log" 2>&1; then
  passed=$((passed + 1))
  echo "fuzz-smoke: regressions ok: ${#regressions[@]} inputs replayed"
else
  fail regressions "$work/regressions.log"
fi

mkdir "$work/corpus"
cp -R "$root/fuzz/corpus/." "$work/corpus/"
log=$work/fuzz.log
status=0
"$fuzzer" "${options[@]}" -max_total_time="$seconds" -print_final_stats=1 -dict="$root/fuzz/gvariant.dict" \
  "$work/corpus" >"$log" 2>&1 || status=$?
runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -n 1 || true)
cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$done_line")
ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$done_line")
corpus=$(sed -n 's/.* corp: \([0-9]*\).*/\1/p' <<<"$done_line")
if [[ $status -eq 0 && -n $runs ]]; then
  passed=$((passed + 1))
  echo "fuzz-smoke: zorvel_fuzz ok: ${runs} executions in ${seconds} s (${speed}/s), cov ${cov:-?}, ft ${ft:-?}, corpus ${corpus:-?}"
else
  fail "zorvel_fuzz (exit $status, ${runs:-no} executions)" "$log"
fi

echo "fuzz-smoke: $passed passed, $failed failed"
[[ $failed -eq 0 ]]
