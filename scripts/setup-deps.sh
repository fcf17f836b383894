#!/usr/bin/env bash
# Installs what building and testing libzorvel needs on Debian 12, only the
# packages that are missing. Idempotent; with everything present it only asks
# dpkg and returns at once.
set -euo pipefail

required=(
  build-essential cmake ninja-build pkg-config
  libglib2.0-dev libglib2.0-bin   # GLib/GIO headers; gdbus for poking the bus by hand
  libsystemd-dev                  # the journal client the log writes through
  dbus-daemon                     # the tests' private bus
  googletest libgtest-dev libbenchmark-dev
  valgrind gnuplot-nox python3
)
# Fuzzers need clang with its libFuzzer runtime; without them fuzzing is skipped.
# doxygen builds the API reference (the docs target); without it that is skipped.
optional=(clang libclang-rt-14-dev doxygen)

# Prints the packages among "$@" that are not installed.
missing_of() {
  local installed
  installed=$(dpkg-query -W -f='${db:Status-Abbrev} ${Package}\n' "$@" 2>/dev/null | awk '$1 == "ii" { print $2 }' || true)
  local package
  for package in "$@"; do
    grep -qx -- "${package}" <<<"${installed}" || echo "${package}"
  done
}

mapfile -t missing_required < <(missing_of "${required[@]}")
mapfile -t missing_optional < <(missing_of "${optional[@]}")
if ((${#missing_required[@]} == 0 && ${#missing_optional[@]} == 0)); then
  echo "setup-deps: all $((${#required[@]} + ${#optional[@]})) packages present"
  exit 0
fi

to_install=("${missing_required[@]}" "${missing_optional[@]}")
as_root=()
if ((EUID != 0)); then
  if command -v sudo >/dev/null 2>&1; then
    as_root=(sudo)
  else
    echo "setup-deps: not root and no sudo; install these yourself: ${to_install[*]}" >&2
    ((${#missing_required[@]} == 0)) && exit 0
    exit 1
  fi
fi
apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300)

echo "setup-deps: installing ${to_install[*]}"
"${apt[@]}" update
if ((${#missing_required[@]} > 0)); then
  "${apt[@]}" install -y --no-install-recommends "${missing_required[@]}" >/dev/null
fi
if ((${#missing_optional[@]} > 0)); then
  "${apt[@]}" install -y --no-install-recommends "${missing_optional[@]}" >/dev/null ||
    echo "setup-deps: could not install ${missing_optional[*]}; fuzzing or the API reference will be skipped" >&2
fi

still_missing=$(missing_of "${required[@]}")
if [[ -n "${still_missing}" ]]; then
  echo "setup-deps: still missing: ${still_missing//$'\n'/ }" >&2
  exit 1
fi
echo "setup-deps: done"
