# Installs BUILD_DIR into a fresh PREFIX and checks the tree an application sees.
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX}
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "cmake --install failed (${result})")
endif()

set(expected
  ${LIBDIR}/libzorvel.so.${VERSION}
  ${LIBDIR}/libzorvel.so.1
  ${LIBDIR}/libzorvel.so
  ${LIBDIR}/pkgconfig/zorvel.pc
  ${LIBDIR}/cmake/zorvel/zorvelConfig.cmake
  ${LIBDIR}/cmake/zorvel/zorvelConfigVersion.cmake
  ${LIBDIR}/cmake/zorvel/zorvelTargets.cmake
  include/zorvel/Launcher.h
  include/zorvel/Version.h
  include/zorvel/common/GLibPtr.h
  include/zorvel/common/GLibUtils.h
  include/zorvel/common/ThreadAnnotations.h
  include/zorvel/dbus/client/DBusClient.h
  include/zorvel/dbus/client/DBusClientAsync.h
  include/zorvel/dbus/client/LinkState.h
  include/zorvel/dbus/client/ServiceContract.h
  include/zorvel/platform/Export.h
  include/zorvel/platform/SystemLog.h
  share/dbus-1/interfaces/dbus.zorvel.Interface.xml)
set(internal
  include/zorvel/platform/Log.h
  include/zorvel/platform/Journal.h
  include/zorvel/dbus/client/CallbackAnchor.h
  include/zorvel/LauncherTesting.h)
foreach(file ${expected})
  if(NOT EXISTS ${PREFIX}/${file})
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()
foreach(file ${internal})
  if(EXISTS ${PREFIX}/${file})
    message(FATAL_ERROR "internal header installed: ${file}")
  endif()
endforeach()
foreach(link libzorvel.so libzorvel.so.1)
  if(NOT IS_SYMLINK ${PREFIX}/${LIBDIR}/${link})
    message(FATAL_ERROR "${link} is not a symbolic link")
  endif()
endforeach()
# Every installed public header must compile on its own: none may reach for an
# internal header that was left out.
file(GLOB_RECURSE headers RELATIVE ${PREFIX}/include ${PREFIX}/include/zorvel/*.h)
execute_process(COMMAND pkg-config --cflags glib-2.0 gio-2.0 OUTPUT_VARIABLE glib_cflags
  OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "pkg-config glib-2.0 gio-2.0 failed")
endif()
separate_arguments(glib_cflags UNIX_COMMAND "${glib_cflags}")
set(probe ${PREFIX}/../header-probe.cpp)
foreach(header ${headers})
  file(WRITE ${probe} "#include <${header}>\n")
  execute_process(COMMAND ${CXX} -std=c++17 -fsyntax-only -Wall -Wextra -Wshadow -Werror
                          -I${PREFIX}/include ${glib_cflags} ${probe}
    RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "installed header does not compile on its own: ${header}")
  endif()
endforeach()
message(STATUS "installed into ${PREFIX}")
