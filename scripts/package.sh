#!/usr/bin/env bash
# Builds the Debian packages libzorvel1, libzorvel-dev and zorvel-tools into
# build/packages/: a RelWithDebInfo build for /usr in build/package (no tests,
# benchmark or examples), then CPack's DEB generator, one package per install
# component (cmake/Packaging.cmake). Installs the build dependencies first
# (scripts/setup-deps.sh). The number of compile jobs is ZORVEL_BUILD_JOBS
# (default: the number of cores).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="${root}/build/package"
out="${root}/build/packages"
jobs="${ZORVEL_BUILD_JOBS:-$(nproc)}"

"${root}/scripts/setup-deps.sh"
# CPack's dependency step reads the binaries with file, readelf and
# dpkg-shlibdeps; build-essential brings the last two, a minimal system may
# lack file.
if ! command -v file >/dev/null 2>&1; then
  as_root=()
  ((EUID == 0)) || as_root=(sudo)
  echo "package: installing file"
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300 update
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300 \
    install -y --no-install-recommends file >/dev/null
fi

cmake -S "${root}" -B "${build}" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_INSTALL_PREFIX=/usr \
  -DZORVEL_BUILD_TESTS=OFF -DZORVEL_BUILD_BENCH=OFF -DZORVEL_BUILD_FUZZ=OFF \
  -DZORVEL_BUILD_EXAMPLES=OFF -DZORVEL_BUILD_TOOLS=ON -DZORVEL_SANITIZE=
cmake --build "${build}" -j "${jobs}"

# CPack stages each component under its own directory; the packages it makes
# are moved to build/packages, replacing those of an earlier run.
rm -rf "${build}/cpack"
(cd "${build}" && cpack -G DEB --config "${build}/CPackConfig.cmake" -B "${build}/cpack")
mkdir -p "${out}"
rm -f "${out}"/*.deb
mv "${build}/cpack"/*.deb "${out}/"

echo "package: made in ${out}:"
for deb in "${out}"/*.deb; do
  echo
  echo "== $(basename "${deb}")"
  dpkg-deb --field "${deb}" Package Version Architecture Depends Recommends
  dpkg-deb --contents "${deb}" | awk '$1 !~ /^d/ { $2 = $3 = $4 = $5 = ""; print }' | sed 's/^\(.\{10\}\) */\1  /'
done
