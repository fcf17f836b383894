#!/usr/bin/env bash
# The Debian packages, as a distribution's user gets them: CPack makes them
# from this build tree (cmake/Packaging.cmake), each is checked for what it
# holds and depends on, they are unpacked with dpkg-deb -x into a scratch
# root, and the consumer (tests/package/consumer) is built and run against
# that root through pkg-config and through the CMake package; the examples
# shipped in share/doc/zorvel are built there too.
#
#   deb.sh BUILD_DIR WORK CPACK CMAKE TOOLS CONSUMER_SCRIPT -DVAR=VALUE...
#
# TOOLS is ON when the tools were built; the -D arguments are those of
# consumer.cmake (PREFIX, WORK and MODE are set here). Exits 77 (skipped)
# without dpkg-deb or CPack's DEB generator, and in a sanitized build.
set -euo pipefail

build=$1 work=$2 cpack=$3 cmake=$4 tools=$5 consumer=$6
shift 6
consumer_args=("$@")
skip=77

# Values consumer.cmake is given, needed here too.
arg() {
  local a
  for a in "${consumer_args[@]}"; do
    if [[ "${a}" == "-D$1="* ]]; then
      echo "${a#-D$1=}"
      return
    fi
  done
}

if ! command -v dpkg-deb >/dev/null 2>&1; then
  echo "skipped: no dpkg-deb"
  exit "${skip}"
fi
generators=$("${cpack}" --help)
if ! grep -Eq '^ +DEB +=' <<<"${generators}"; then
  echo "skipped: this cpack has no DEB generator"
  exit "${skip}"
fi
# A distribution packages a plain build; the sanitizer builds would only
# repeat the same checks at the same cost.
if [[ -n $(arg SANITIZE) ]]; then
  echo "skipped: sanitized build"
  exit "${skip}"
fi
if [[ ! -f "${build}/CPackConfig.cmake" ]]; then
  echo "no ${build}/CPackConfig.cmake: cmake/Packaging.cmake not included?" >&2
  exit 1
fi

version=$(arg VERSION)
libdir=$(arg LIBDIR)

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

rm -rf "${work}"
mkdir -p "${work}"

echo "== cpack -G DEB"
if ! (cd "${work}" && "${cpack}" -G DEB --config "${build}/CPackConfig.cmake" -B "${work}/cpack" >"${work}/cpack.log" 2>&1); then
  cat "${work}/cpack.log" >&2
  fail "cpack"
fi

packages=(libzorvel1 libzorvel-dev)
[[ "${tools}" == ON ]] && packages+=(zorvel-tools)
declare -A deb
for package in "${packages[@]}"; do
  files=("${work}/cpack/${package}_${version}_"*.deb)
  [[ -f "${files[0]}" ]] || fail "no ${package}_${version}_*.deb made (cpack made: $(ls "${work}/cpack"))"
  deb[${package}]=${files[0]}
done

# Files (not directories) of a package, one a line, as ./usr/...
contents() {
  dpkg-deb --contents "$1" | awk '$1 !~ /^d/ { print $6 }' | sort
}
# Fails unless package $1 has a file matching the extended regex $2.
has() {
  contents "${deb[$1]}" | grep -Eq "$2" || fail "$1 lacks $2"
}
lacks() {
  if contents "${deb[$1]}" | grep -Eq "$2"; then fail "$1 holds $2"; fi
}
depends_on() {
  dpkg-deb --field "${deb[$1]}" Depends | grep -Fq "$2" || fail "$1 does not depend on $2: $(dpkg-deb --field "${deb[$1]}" Depends)"
}

echo "== what each package holds"
lib="^\./usr/${libdir}"
has libzorvel1 "${lib}/libzorvel\.so\.1$"
has libzorvel1 "${lib}/libzorvel\.so\.${version//./\\.}$"
[[ $(contents "${deb[libzorvel1]}" | grep -cv '/copyright$') -eq 2 ]] ||
  fail "libzorvel1 holds more than the library and its copyright: $(contents "${deb[libzorvel1]}")"
has libzorvel-dev "${lib}/libzorvel\.so$"
has libzorvel-dev "${lib}/pkgconfig/zorvel\.pc$"
has libzorvel-dev "${lib}/cmake/zorvel/zorvelConfig\.cmake$"
has libzorvel-dev "^\./usr/include/zorvel/Launcher\.h$"
for doc in README.md CHANGELOG.md LICENSE data/private-bus.conf examples/CMakeLists.txt examples/launcher_example.cpp; do
  has libzorvel-dev "^\./usr/share/doc/zorvel/${doc//./\\.}$"
done
lacks libzorvel-dev "libzorvel\.so\.1"
depends_on libzorvel-dev "libzorvel1 (= ${version})"
depends_on libzorvel-dev "libglib2.0-dev"
if [[ "${tools}" == ON ]]; then
  for tool in zorvelctl zorvel-sim; do
    has zorvel-tools "^\./usr/bin/${tool}$"
    has zorvel-tools "^\./usr/share/man/man1/${tool}\.1\.gz$"
  done
  lacks zorvel-tools "libzorvel\.so"
  depends_on zorvel-tools "libzorvel1 (= ${version})"
fi

for package in "${packages[@]}"; do
  has "${package}" "^\./usr/share/doc/${package}/copyright$"
done

# Every file an install of this build makes is in exactly one package: an
# install() rule without a packaged COMPONENT would be left out silently.
# Only the packages hold a copyright file each, and their manual pages are
# compressed.
"${cmake}" --install "${build}" --prefix "${work}/all" >/dev/null
(cd "${work}/all" && find . \( -type f -o -type l \) | sed 's|^\./|./usr/|' | sort) >"${work}/installed.txt"
for package in "${packages[@]}"; do contents "${deb[${package}]}"; done |
  grep -Ev '^\./usr/share/doc/[^/]+/copyright$' | sed -E 's|^(\./usr/share/man/.*\.[1-9])\.gz$|\1|' |
  sort >"${work}/packaged.txt"
if [[ -n $(uniq -d "${work}/packaged.txt") ]]; then
  fail "in more than one package: $(uniq -d "${work}/packaged.txt")"
fi
if [[ "${tools}" != ON ]]; then
  grep -Ev '^\./usr/(bin/|share/man/)' "${work}/installed.txt" >"${work}/installed-lib.txt" || true
  mv "${work}/installed-lib.txt" "${work}/installed.txt"
fi
if ! diff -u "${work}/installed.txt" "${work}/packaged.txt" >"${work}/diff.txt"; then
  cat "${work}/diff.txt" >&2
  fail "the packages do not hold what cmake --install installs (- installed only, + packaged only)"
fi

echo "== dpkg-deb -x into ${work}/root"
for package in "${packages[@]}"; do
  dpkg-deb -x "${deb[${package}]}" "${work}/root"
done
prefix="${work}/root/usr"
for package in "${packages[@]}"; do
  grep -q "^License: Expat$" "${prefix}/share/doc/${package}/copyright" || fail "${package}'s copyright file"
done
if [[ "${tools}" == ON ]]; then
  for tool in zorvelctl zorvel-sim; do
    gzip -dc "${prefix}/share/man/man1/${tool}.1.gz" | grep -q "^\.TH" || fail "${tool}.1.gz is no manual page"
  done
fi
export LD_LIBRARY_PATH="${prefix}/${libdir}${LD_LIBRARY_PATH:+:${LD_LIBRARY_PATH}}"

if [[ "${tools}" == ON ]]; then
  for tool in zorvelctl zorvel-sim; do
    out=$("${prefix}/bin/${tool}" --version) || fail "${tool} --version from the packages"
    [[ "${out}" == "${tool} ${version}" ]] || fail "${tool} --version said '${out}'"
  done
fi

# zorvel.pc finds its prefix from its own place, so pointing pkg-config at the
# unpacked root is enough for every path it prints to lead into the root.
flags=$(PKG_CONFIG_PATH="${prefix}/${libdir}/pkgconfig" pkg-config --cflags --libs zorvel) || fail "pkg-config zorvel"
seen=""
for flag in ${flags}; do
  case "${flag}" in
    -I*/include) [[ $(realpath -m "${flag#-I}") == "${prefix}/include" ]] && seen+=I ;;
    -L*) [[ $(realpath -m "${flag#-L}") == "${prefix}/${libdir}" ]] && seen+=L ;;
  esac
done
[[ "${seen}" == *I* && "${seen}" == *L* ]] || fail "pkg-config's flags do not lead into the unpacked root: ${flags}"

for mode in pkg_config find_package; do
  echo "== consumer through ${mode}"
  "${cmake}" "${consumer_args[@]}" -DMODE=${mode} -DPREFIX="${prefix}" -DWORK="${work}/${mode}" -P "${consumer}"
done

echo "== the examples in share/doc/zorvel/examples"
configure=("${cmake}" -S "${prefix}/share/doc/zorvel/examples" -B "${work}/examples" -G "$(arg GENERATOR)"
  -DCMAKE_PREFIX_PATH="${prefix}" -DCMAKE_CXX_COMPILER="$(arg CXX)" -DCMAKE_BUILD_TYPE="$(arg BUILD_TYPE)")
make_program=$(arg MAKE_PROGRAM)
[[ -n "${make_program}" ]] && configure+=(-DCMAKE_MAKE_PROGRAM="${make_program}")
"${configure[@]}" >"${work}/examples.log" 2>&1 || { cat "${work}/examples.log" >&2; fail "configuring the packaged examples"; }
"${cmake}" --build "${work}/examples" -j 2 >>"${work}/examples.log" 2>&1 ||
  { cat "${work}/examples.log" >&2; fail "building the packaged examples"; }
[[ -x "${work}/examples/launcher_example" ]] || fail "launcher_example not built"

echo "package.deb: ok (${packages[*]} ${version})"
