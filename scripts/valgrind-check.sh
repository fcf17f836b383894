#!/usr/bin/env bash
# Runs test programs under valgrind memcheck (GLib's suppressions, malloc-backed
# slices) and fails on any error or any definite/indirect leak. Slow: run by
# hand, e.g. after changing ownership code. Usage:
#   scripts/valgrind-check.sh [BUILD_DIR] [TEST_PROGRAM...]
# BUILD_DIR defaults to build/plain (made by scripts/run-tests.sh plain); with
# no programs named, every tests/*_test program in it is run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build/plain}
shift || true
programs=("$@")
if [[ ${#programs[@]} -eq 0 ]]; then
  mapfile -t programs < <(find "$build/tests" -maxdepth 1 -name '*_test' -type f -perm -u+x | sort)
fi
command -v valgrind >/dev/null || { echo "valgrind-check: valgrind is not installed"; exit 1; }

export G_SLICE=always-malloc G_DEBUG=gc-friendly
passed=0
failed=0
for program in "${programs[@]}"; do
  log=$(mktemp)
  status=0
  # One thread per command: a burst under valgrind's slow clock keeps many alive.
  valgrind --max-threads=5000 --error-exitcode=99 --leak-check=full --show-leak-kinds=definite,indirect \
    --errors-for-leak-kinds=definite,indirect --num-callers=40 \
    --suppressions=/usr/share/glib-2.0/valgrind/glib.supp "$program" >"$log" 2>&1 || status=$?
  summary=$(grep -E 'ERROR SUMMARY' "$log" | tail -n 1 | sed 's/^==[0-9]*== //' || true)
  lost=$(grep -E 'definitely lost|indirectly lost' "$log" | sed 's/^==[0-9]*== *//' | tr '\n' ' ' || true)
  if [[ $status -eq 0 ]]; then
    passed=$((passed + 1))
    echo "valgrind-check: $(basename "$program") ok: $summary ${lost:-no leaks}"
  else
    failed=$((failed + 1))
    echo "valgrind-check: $(basename "$program") FAILED (exit $status): ${summary:-no summary}"
    grep -E '^\[  FAILED|Failure|Expected|Actual|Which is' "$log" | head -n 20 || true
    grep -E '^==[0-9]+== (Invalid|Conditional|Use of|.*definitely lost|.*indirectly lost|   (at|by) )' "$log" | head -n 60 || true
  fi
  rm -f "$log"
done
echo "valgrind-check: $passed passed, $failed failed"
[[ $failed -eq 0 ]]
