# The API reference: `cmake --build <build dir> --target docs` runs Doxygen
# over the installed headers and writes HTML to <build dir>/docs/html.
#
# Only the headers an application can include are read (the build tree's
# include/zorvel/ mirror of the installed tree, so the pages name them as
# <zorvel/...>, the generated <zorvel/Version.h> among them); internal headers
# and the detail namespaces stay out. Doxygen warnings fail the target while
# ZORVEL_DOCS_WARN_AS_ERROR is on (the default): every public declaration is
# documented, and a new one without documentation is caught here.
#
# Without Doxygen the target only says so and fails.

option(ZORVEL_DOCS_WARN_AS_ERROR "Fail the docs target on any Doxygen warning" ON)

find_package(Doxygen QUIET)

if(NOT DOXYGEN_FOUND)
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E echo "docs: doxygen is missing; install it (apt-get install doxygen) and configure again"
    COMMAND ${CMAKE_COMMAND} -E false
    VERBATIM)
  return()
endif()

set(ZORVEL_DOCS_INCLUDE_DIR ${PROJECT_BINARY_DIR}/include)
set(ZORVEL_DOCS_OUTPUT_DIR ${PROJECT_BINARY_DIR}/docs)
# The installed headers (src/CMakeLists.txt installs exactly these), as the
# build tree's include/ folder presents them.
set(ZORVEL_DOCS_HEADERS
  zorvel/Launcher.h
  zorvel/Version.h
  zorvel/dbus/client/DBusClient.h
  zorvel/dbus/client/DBusClientAsync.h
  zorvel/dbus/client/LinkState.h
  zorvel/dbus/client/ServiceContract.h
  zorvel/common/GLibUtils.h
  zorvel/common/GLibPtr.h
  zorvel/common/ThreadAnnotations.h
  zorvel/platform/SystemLog.h
  zorvel/platform/Export.h)
set(ZORVEL_DOCS_INPUT "")
set(ZORVEL_DOCS_DEPENDS "")
foreach(header ${ZORVEL_DOCS_HEADERS})
  string(APPEND ZORVEL_DOCS_INPUT " \\\n    \"${ZORVEL_DOCS_INCLUDE_DIR}/${header}\"")
  list(APPEND ZORVEL_DOCS_DEPENDS ${ZORVEL_DOCS_INCLUDE_DIR}/${header})
endforeach()
if(ZORVEL_DOCS_WARN_AS_ERROR)
  # Lists every warning, then fails.
  set(ZORVEL_DOCS_WARN_AS_ERROR_VALUE FAIL_ON_WARNINGS)
else()
  set(ZORVEL_DOCS_WARN_AS_ERROR_VALUE NO)
endif()

configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${ZORVEL_DOCS_OUTPUT_DIR}/Doxyfile @ONLY)

# Always runs (a few seconds): the headers are links, whose changes the
# build would not see reliably.
add_custom_target(docs
  COMMAND ${CMAKE_COMMAND} -E remove_directory ${ZORVEL_DOCS_OUTPUT_DIR}/html
  COMMAND ${DOXYGEN_EXECUTABLE} ${ZORVEL_DOCS_OUTPUT_DIR}/Doxyfile
  COMMAND ${CMAKE_COMMAND} -E echo "docs: ${ZORVEL_DOCS_OUTPUT_DIR}/html/index.html"
  WORKING_DIRECTORY ${ZORVEL_DOCS_OUTPUT_DIR}
  COMMENT "Building the API reference with Doxygen ${DOXYGEN_VERSION}"
  VERBATIM)
