#!/usr/bin/env bash
# Builds libzorvel and runs its whole test suite in three configurations
# (CMakePresets.json): plain RelWithDebInfo, ASan+UBSan and TSan, each in
# build/<name>; with clang there, the full run also builds the library and
# tools with clang's thread-safety analysis as errors (build/thread-safety). Every configuration runs even when an earlier one failed; the
# exit status is non-zero when any of them (or the docs or the fuzz smoke run) failed.
# The fuzz smoke run belongs to the full run only: naming a configuration or
# passing ctest a test selection (-R, -E, -L, ...) skips it. So does the API
# reference: with doxygen installed, the full run also builds it in
# build/plain (the docs target, Doxygen warnings as errors).
#
#   scripts/run-tests.sh [plain] [asan] [tsan] [thread-safety] [-- <extra ctest arguments>]
#
# ZORVEL_TEST_JOBS   tests run at once (default 4: most of them wait on the bus)
# ZORVEL_BUILD_JOBS  compile jobs (default: the number of cores)
set -uo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

configs=()
ctest_extra=()
selected=0 # a configuration or a ctest test selection was given
while (($# > 0)); do
  case "$1" in
    plain | asan | tsan | thread-safety)
      configs+=("$1")
      selected=1
      ;;
    --)
      shift
      ctest_extra=("$@")
      for arg in "$@"; do
        case "${arg}" in
          -R* | -E* | -L* | -I* | -U | --tests-regex* | --exclude-regex* | --label-regex* | --label-exclude* | \
            --tests-information* | --tests-from-file* | --exclude-from-file* | --rerun-failed) selected=1 ;;
        esac
      done
      break
      ;;
    -h | --help)
      sed -n '2,/^set -uo/p' "$0" | sed '$d; s/^# \{0,1\}//'
      exit 0
      ;;
    *)
      echo "run-tests: unknown argument '$1' (try --help)" >&2
      exit 2
      ;;
  esac
  shift
done
if ((${#configs[@]} == 0)); then
  configs=(plain asan tsan)
  command -v clang++ >/dev/null 2>&1 && configs+=(thread-safety)
fi

test_jobs=${ZORVEL_TEST_JOBS:-4}
build_jobs=${ZORVEL_BUILD_JOBS:-$(nproc)}

scripts/setup-deps.sh || {
  echo "run-tests: installing the dependencies failed" >&2
  exit 1
}

# Older ThreadSanitizer runtimes cannot map their shadow memory under every
# kernel's address layout; running without address randomisation avoids that.
tsan_runner=()
if setarch "$(uname -m)" -R true >/dev/null 2>&1; then
  tsan_runner=(setarch "$(uname -m)" -R)
fi

declare -A result passed total elapsed
failures=0
sum_passed=0
sum_failed=0

run_config() {
  local config=$1
  local dir=build/${config}
  passed[${config}]=0
  total[${config}]=0

  echo
  echo "=== ${config}: configure"
  mkdir -p "${dir}"
  if ! cmake --preset "${config}" >"${dir}/configure.log" 2>&1; then
    cat "${dir}/configure.log"
    result[${config}]="configure failed"
    return 1
  fi

  echo "=== ${config}: build (-j${build_jobs})"
  if ! cmake --build --preset "${config}" -j "${build_jobs}"; then
    result[${config}]="build failed"
    return 1
  fi

  if [[ ${config} == thread-safety ]]; then # the analysis runs in the compiler: nothing to test
    result[${config}]="ok (built)"
    return 0
  fi

  echo "=== ${config}: test (-j${test_jobs})"
  local runner=()
  [[ ${config} == tsan ]] && runner=("${tsan_runner[@]}")
  "${runner[@]}" ctest --preset "${config}" -j "${test_jobs}" "${ctest_extra[@]}" 2>&1 | tee "${dir}/ctest.log"
  local status=${PIPESTATUS[0]}

  local counts
  counts=$(grep -Eo '[0-9]+ tests failed out of [0-9]+' "${dir}/ctest.log" | tail -n 1)
  if [[ ${counts} =~ ^([0-9]+)\ tests\ failed\ out\ of\ ([0-9]+)$ ]]; then
    total[${config}]=${BASH_REMATCH[2]}
    passed[${config}]=$((BASH_REMATCH[2] - BASH_REMATCH[1]))
  fi
  if ((status != 0)); then
    result[${config}]="FAILED"
    return 1
  fi
  result[${config}]="ok"
}

for config in "${configs[@]}"; do
  start=${SECONDS}
  run_config "${config}" || failures=$((failures + 1))
  elapsed[${config}]=$((SECONDS - start))
  sum_passed=$((sum_passed + passed[${config}]))
  sum_failed=$((sum_failed + total[${config}] - passed[${config}]))
done

# --- API reference -----------------------------------------------------------
# The docs target of build/plain (configured above) runs Doxygen over the
# public headers with its warnings as errors (ZORVEL_DOCS_WARN_AS_ERROR, on by
# default); skipped without doxygen, when
# only part of the suite was asked for, or when build/plain did not configure.
docs_result="skipped"
docs_elapsed=0
if ((selected)); then
  docs_result="skipped (partial)"
elif command -v doxygen >/dev/null 2>&1 && [[ -f build/plain/CMakeCache.txt ]]; then
  echo
  echo "=== docs: API reference"
  start=${SECONDS}
  if cmake --build build/plain --target docs; then
    docs_result="ok"
  else
    docs_result="FAILED"
    failures=$((failures + 1))
  fi
  docs_elapsed=$((SECONDS - start))
fi

# --- Fuzz smoke tests --------------------------------------------------------
# scripts/fuzz-smoke.sh builds the fuzz/ targets with clang and runs each one
# briefly on its corpus; skipped when clang or the script is not there, and
# when only part of the suite was asked for.
fuzz_result="skipped"
fuzz_elapsed=0
if ((selected)); then
  fuzz_result="skipped (partial)"
elif [[ -x scripts/fuzz-smoke.sh ]] && command -v clang++ >/dev/null 2>&1; then
  echo
  echo "=== fuzz: smoke"
  start=${SECONDS}
  if scripts/fuzz-smoke.sh; then
    fuzz_result="ok"
  else
    fuzz_result="FAILED"
    failures=$((failures + 1))
  fi
  fuzz_elapsed=$((SECONDS - start))
fi

echo
echo "=== summary"
printf '%-14s %-18s %10s %8s\n' configuration result passed time
for config in "${configs[@]}"; do
  printf '%-14s %-18s %10s %7ss\n' "${config}" "${result[${config}]}" \
    "${passed[${config}]}/${total[${config}]}" "${elapsed[${config}]}"
done
printf '%-14s %-18s %10s %7ss\n' docs "${docs_result}" - "${docs_elapsed}"
printf '%-14s %-18s %10s %7ss\n' fuzz "${fuzz_result}" - "${fuzz_elapsed}"
echo "total: ${sum_passed} passed, ${sum_failed} failed"

((failures == 0))
