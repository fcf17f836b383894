# Run by CPack on the staged files, before it makes the .deb packages: what
# Debian asks of every package and a plain `cmake --install` has no use for.
#   - /usr/share/doc/<package>/copyright, the license in Debian's
#     machine-readable form;
#   - manual pages compressed with gzip -9n (no name or time stamp, so that
#     the package is reproducible).
# CPack hands over CPACK_TEMPORARY_INSTALL_DIRECTORY, with one directory per
# component below it, and the CPACK_* variables that Packaging.cmake set.

set(staging "${CPACK_TEMPORARY_INSTALL_DIRECTORY}")
file(READ "${CPACK_ZORVEL_LICENSE_FILE}" license)
# In the copyright file the license text is indented by one space, with "."
# for its empty lines.
string(REGEX REPLACE "^MIT License\n+(Copyright [^\n]*\n+)?" "" license "${license}")
string(REGEX REPLACE "\n+$" "" license "${license}")
string(REPLACE "\n\n" "\n.\n" license "${license}")
string(REPLACE "\n" "\n " license " ${license}")

foreach(entry IN LISTS CPACK_ZORVEL_DEB_PACKAGES)  # <component>=<package>
  string(REPLACE "=" ";" entry "${entry}")
  list(GET entry 0 component)
  list(GET entry 1 package)
  set(root "${staging}/${component}${CPACK_PACKAGING_INSTALL_PREFIX}")
  if(NOT IS_DIRECTORY "${root}")
    continue()  # a component left out of this build
  endif()
  file(WRITE "${root}/share/doc/${package}/copyright"
"Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: ${CPACK_PACKAGE_NAME}

Files: *
Copyright: ${CPACK_ZORVEL_COPYRIGHT}
License: Expat

License: Expat
${license}
")
  file(GLOB_RECURSE pages "${root}/share/man/*.[1-9]")
  foreach(page IN LISTS pages)
    execute_process(COMMAND gzip -9nf "${page}" RESULT_VARIABLE failed)
    if(failed)
      message(FATAL_ERROR "gzip ${page} failed")
    endif()
  endforeach()
endforeach()
