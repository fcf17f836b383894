# Builds the consumer in WORK against the package installed in PREFIX and runs
# it. MODE find_package: a CMake project using find_package(zorvel CONFIG).
# MODE pkg_config: a plain compiler command with `pkg-config --cflags --libs`.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

set(sanitize_flags "")
if(SANITIZE)
  # A sanitized libzorvel.so needs its runtime loaded by the executable.
  set(sanitize_flags -fsanitize=${SANITIZE} -fno-omit-frame-pointer)
endif()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    string(REPLACE ";" " " command "${ARGN}")
    message(FATAL_ERROR "failed (${result}): ${command}")
  endif()
endfunction()

if(MODE STREQUAL "find_package")
  string(REPLACE ";" " " flags "${sanitize_flags}")
  set(configure ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK} -G ${GENERATOR}
      -DCMAKE_PREFIX_PATH=${PREFIX} -DEXPECTED_PREFIX=${PREFIX}
      -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
      "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
  if(MAKE_PROGRAM)
    list(APPEND configure -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM})
  endif()
  run(${configure})
  run(${CMAKE_COMMAND} --build ${WORK})
  run(${WORK}/zorvel_consumer)
elseif(MODE STREQUAL "pkg_config")
  set(ENV{PKG_CONFIG_PATH} ${PREFIX}/${LIBDIR}/pkgconfig)
  execute_process(COMMAND pkg-config --cflags --libs zorvel
    OUTPUT_VARIABLE pkg_flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config --cflags --libs zorvel failed")
  endif()
  message(STATUS "pkg-config: ${pkg_flags}")
  execute_process(COMMAND pkg-config --modversion zorvel
    OUTPUT_VARIABLE pkg_version OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT pkg_version STREQUAL VERSION)
    message(FATAL_ERROR "zorvel.pc says version '${pkg_version}', the project ${VERSION}")
  endif()
  separate_arguments(pkg_flags UNIX_COMMAND "${pkg_flags}")
  run(${CXX} -std=c++17 -Wall -Wextra ${sanitize_flags} ${SOURCE}/main.cpp ${pkg_flags}
      -o ${WORK}/zorvel_consumer)
  # As an application installed beside a non-system prefix would be run.
  set(ENV{LD_LIBRARY_PATH} ${PREFIX}/${LIBDIR})
  run(${WORK}/zorvel_consumer)
else()
  message(FATAL_ERROR "unknown MODE '${MODE}'")
endif()
