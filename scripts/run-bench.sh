#!/usr/bin/env bash
# Builds the benchmark (RelWithDebInfo, in build/bench) and runs it: the
# library against plain GDBus on a private bus with a lean daemon, side by
# side in one run. Prints a table and, as its last line, one JSON object with
# the figures; samples and the latency plot go to build/bench/results.
#
#   scripts/run-bench.sh [zorvel-bench options]    (--help lists them)
#
# ZORVEL_BUILD_JOBS  compile jobs (default 2)
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

if [[ -x scripts/setup-deps.sh ]]; then
  scripts/setup-deps.sh >&2 || {
    echo "run-bench: installing the dependencies failed" >&2
    exit 1
  }
fi

build=build/bench
mkdir -p "${build}"
generator=()
if [[ ! -f ${build}/CMakeCache.txt ]] && command -v ninja >/dev/null 2>&1; then
  generator=(-G Ninja)
fi
echo "run-bench: building in ${build} (log: ${build}/build.log)" >&2
if ! {
  cmake -S . -B "${build}" "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DZORVEL_BUILD_TESTS=OFF -DZORVEL_BUILD_TOOLS=OFF -DZORVEL_BUILD_EXAMPLES=OFF -DZORVEL_BUILD_BENCH=ON &&
    cmake --build "${build}" --target zorvel-bench -j "${ZORVEL_BUILD_JOBS:-2}"
} >"${build}/build.log" 2>&1; then
  tail -n 30 "${build}/build.log" >&2
  echo "run-bench: the build failed" >&2
  exit 1
fi

exec "${build}/bench/zorvel-bench" --out "${build}/results" "$@"
