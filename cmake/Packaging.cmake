# Debian packages through CPack, one per install component:
#   libzorvel1    (runtime)  libzorvel.so.1 and the file it points to
#   libzorvel-dev (dev)      headers, the libzorvel.so link, pkg-config and
#                            CMake files, the interface XML, share/doc/zorvel
#   zorvel-tools  (tools)    zorvelctl, zorvel-sim and their manual pages
# scripts/package.sh configures a build for /usr and runs cpack -G DEB; the
# ctest test package.deb runs cpack on the test build itself.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zorvel)
set(CPACK_PACKAGE_VENDOR "The libzorvel authors")
set(CPACK_PACKAGE_CONTACT "The libzorvel authors")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# The first line of each package's description below is its summary. CPack
# would put CPACK_PACKAGE_DESCRIPTION_SUMMARY (by default the project's
# DESCRIPTION) in front of it unless that is left at CPack's own fallback text.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
# Packages carry no debugging information; a RelWithDebInfo build keeps it in
# the build tree.
set(CPACK_STRIP_FILES ON)
# Directories that install() creates implicitly get 0755 whatever the umask.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# Only the packages; `make package_source` is not how sources are shipped.
set(CPACK_SOURCE_GENERATOR TXZ)
set(CPACK_SOURCE_IGNORE_FILES "/\\\\.git/" "/build/" "/out/")

# Packages install into /usr whatever CMAKE_INSTALL_PREFIX the build has.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TARGET zorvelctl OR TARGET zorvel-sim)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(ZORVEL_DEB_VERSION ${PROJECT_VERSION})
set(ZORVEL_DEB_RUNTIME libzorvel${PROJECT_VERSION_MAJOR})

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)  # <name>_<version>_<architecture>.deb
set(CPACK_DEBIAN_PACKAGE_VERSION ${ZORVEL_DEB_VERSION})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The libzorvel authors")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
find_program(ZORVEL_DPKG dpkg)
mark_as_advanced(ZORVEL_DPKG)
if(ZORVEL_DPKG)
  execute_process(COMMAND ${ZORVEL_DPKG} --print-architecture
    OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()

# The shared library's own dependencies are read from the binaries by
# dpkg-shlibdeps when it is there (dpkg-dev, which build-essential brings);
# otherwise they are the Debian 12 ones, written out.
find_program(ZORVEL_DPKG_SHLIBDEPS dpkg-shlibdeps)
find_program(ZORVEL_FILE_PROGRAM file)  # CPack's shlibdeps step needs it
mark_as_advanced(ZORVEL_DPKG_SHLIBDEPS ZORVEL_FILE_PROGRAM)
if(ZORVEL_DPKG_SHLIBDEPS AND ZORVEL_FILE_PROGRAM)
  set(ZORVEL_DEB_SHLIBDEPS ON)
  set(ZORVEL_DEB_SYSTEM_DEPENDS "")
  # The tools need libzorvel.so.1, which is in no installed package yet but in
  # the runtime component's staging tree beside theirs (dpkg-shlibdeps runs
  # in the component's own staging directory). The dependency on
  # libzorvel1 itself is written out below.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    "../runtime${CPACK_PACKAGING_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")
else()
  set(ZORVEL_DEB_SHLIBDEPS OFF)
  set(ZORVEL_DEB_SYSTEM_DEPENDS
    "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libglib2.0-0 (>= 2.56), libstdc++6 (>= 11), libsystemd0 (>= 221)")
endif()

# libzorvel1
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${ZORVEL_DEB_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ${ZORVEL_DEB_SHLIBDEPS})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${ZORVEL_DEB_SYSTEM_DEPENDS}")
# A shlibs file, so that packages linking libzorvel.so.1 get a dependency on
# this one from dpkg-shlibdeps; any 1.x from this version on will do.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)  # only libzorvel1 has a shared library
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "client library for the zorvel daemon
libzorvel is a C++17 client library for the zorvel daemon, reached over the
system D-Bus: broadcasts, found instances, connections and stored session
profiles, with commands held while the daemon is away and replayed when it is
back. This package holds the shared library.")

# libzorvel-dev
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzorvel-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# zorvel.pc requires glib-2.0, gobject-2.0 and gio-2.0, and libsystemd
# privately, which pkg-config looks up even for --cflags.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "${ZORVEL_DEB_RUNTIME} (= ${ZORVEL_DEB_VERSION}), libglib2.0-dev, libsystemd-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "pkg-config, cmake")
set(CPACK_DEBIAN_DEV_DESCRIPTION "client library for the zorvel daemon - development files
libzorvel is a C++17 client library for the zorvel daemon, reached over the
system D-Bus. This package holds the headers, the pkg-config file and the
CMake package (zorvel::zorvel), the daemon's D-Bus interface description, the
documentation and the examples (in /usr/share/doc/zorvel).")

# zorvel-tools
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zorvel-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ${ZORVEL_DEB_SHLIBDEPS})
if(ZORVEL_DEB_SYSTEM_DEPENDS)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${ZORVEL_DEB_RUNTIME} (= ${ZORVEL_DEB_VERSION}), ${ZORVEL_DEB_SYSTEM_DEPENDS}")
else()
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${ZORVEL_DEB_RUNTIME} (= ${ZORVEL_DEB_VERSION})")
endif()
# A private bus to run zorvel-sim on, as the manual pages show.
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS dbus-daemon)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "command-line tools for the zorvel daemon
zorvelctl drives and watches the zorvel daemon through libzorvel (broadcast,
profiles, connect, delete, stop, monitor), with JSON output for scripts.
zorvel-sim is a simulated daemon with a D-Bus control interface, for tests
and for trying applications without the real daemon.")

# The copyright file each package needs and compressed manual pages, added
# to the staged files only (cmake/DebianStaging.cmake).
set(CPACK_ZORVEL_DEB_PACKAGES runtime=${ZORVEL_DEB_RUNTIME} dev=libzorvel-dev tools=zorvel-tools)
set(CPACK_ZORVEL_LICENSE_FILE ${PROJECT_SOURCE_DIR}/LICENSE)
file(STRINGS ${PROJECT_SOURCE_DIR}/LICENSE CPACK_ZORVEL_COPYRIGHT REGEX "^Copyright" LIMIT_COUNT 1)
string(REGEX REPLACE "^Copyright (\\(c\\) )?" "" CPACK_ZORVEL_COPYRIGHT "${CPACK_ZORVEL_COPYRIGHT}")
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/DebianStaging.cmake)

include(CPack)
