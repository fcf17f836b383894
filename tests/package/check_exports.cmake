# Checks the dynamic symbols of LIBRARY: the library's namespaces only, and
# none of its internals. With STRICT off, std:: template instantiations are
# tolerated: GCC gives them default visibility even under -fvisibility=hidden
# unless a version script (cmake/zorvel.map) hides them.
#
# With SYMBOLS (the reviewed list, cmake/zorvel.symbols) it also compares the
# exports, each with its version node ("ZORVEL_1.1 zv_client::..."), with
# that list, so that any change of the ABI shows up as a diff in review; and
# with MAP (the version script) it checks that every export is listed there
# by name, not only caught by the newest node's catch-all patterns.
#
# UPDATE=ON rewrites SYMBOLS from LIBRARY instead of comparing:
#   cmake -DLIBRARY=<build>/src/libzorvel.so -DSYMBOLS=cmake/zorvel.symbols \
#         -DUPDATE=ON -P tests/package/check_exports.cmake
# (or `cmake --build <build> --target zorvel_update_symbols`).
cmake_policy(VERSION 3.16)

# Listed twice in the same (symbol table) order, mangled and demangled: which
# namespace a symbol belongs to is told by its mangled name, since the
# demangled name of a template instantiation starts with its return type
# ("zv_client::X& std::deque<zv_client::X>::emplace_back<...>(...)").
execute_process(COMMAND nm -D --defined-only -p ${LIBRARY}
  OUTPUT_VARIABLE mangled_listing RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "nm -D failed on ${LIBRARY}")
endif()
execute_process(COMMAND nm -D --defined-only -p -C ${LIBRARY}
  OUTPUT_VARIABLE listing RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "nm -D -C failed on ${LIBRARY}")
endif()

# What a header outside the installed set declares, or what no one outside
# the library should reach.
set(internal "::detail::|CallbackAnchor|CallbackScope|::testing::|CurrentClient|BasenameOffset|\\(anonymous namespace\\)")
# Mangled: an entity of our namespaces (N, the member's qualifiers, the
# namespace), or the type_info, its name, the vtable, VTT or a thunk of one.
set(ours "^_Z(T[ISVT]|T[hv][0-9_nh]*)?N[rVKRO]*(9zv_client|4logt)[0-9]")

# nm prints a versioned symbol as name@@NODE (name@NODE for one that is not
# the default version); the node definitions themselves are absolute (A).
set(versioned "^(.*[^@])@@?([A-Za-z_][A-Za-z0-9_.]*)$")

string(REPLACE "\n" ";" lines "${listing}")
string(REPLACE "\n" ";" mangled_lines "${mangled_listing}")
list(LENGTH lines count)
list(LENGTH mangled_lines mangled_count)
if(NOT count EQUAL mangled_count)
  message(FATAL_ERROR "nm listed ${mangled_count} mangled and ${count} demangled symbols of ${LIBRARY}")
endif()
set(ok 0)
set(tolerated 0)
set(bad "")
set(entries "")
set(unlisted "")
if(DEFINED MAP)
  file(READ ${MAP} map)
endif()
set(index -1)
foreach(line IN LISTS lines)
  math(EXPR index "${index} + 1")
  if(NOT line MATCHES "^[0-9a-fA-F]* *([A-Za-z]) (.*)$")
    continue()
  endif()
  set(type ${CMAKE_MATCH_1})
  set(name "${CMAKE_MATCH_2}")
  list(GET mangled_lines ${index} mangled)
  string(REGEX REPLACE "^[0-9a-fA-F]* *[A-Za-z] " "" mangled "${mangled}")
  if(type STREQUAL "A")
    continue()
  endif()
  set(node "(unversioned)")
  if(name MATCHES "${versioned}")
    set(name "${CMAKE_MATCH_1}")
    set(node "${CMAKE_MATCH_2}")
  endif()
  if(mangled MATCHES "${ours}" AND NOT name MATCHES "${internal}")
    math(EXPR ok "${ok} + 1")
  elseif(NOT STRICT AND type MATCHES "^[WVu]$" AND name MATCHES "^([^<(]* )?std::" AND NOT name MATCHES "${internal}")
    math(EXPR tolerated "${tolerated} + 1")
    continue()
  else()
    string(APPEND bad "  ${type} ${name}\n")
  endif()
  list(APPEND entries "${node} ${name}")
  if(DEFINED MAP)
    string(FIND "${map}" "\"${name}\";" at)
    if(at EQUAL -1)
      string(APPEND unlisted "  ${node} ${name}\n")
    endif()
  endif()
endforeach()
list(REMOVE_DUPLICATES entries)  # constructors and destructors: one name, several symbols
list(SORT entries)
string(REPLACE ";" "\n" actual "${entries}")
set(actual "${actual}\n")

set(regenerate "cmake -DLIBRARY=${LIBRARY} -DSYMBOLS=${SYMBOLS} -DUPDATE=ON -P ${CMAKE_CURRENT_LIST_FILE}")
string(CONCAT header
  "# The exported symbols of libzorvel.so, each with its version node, as\n"
  "# package.exported_symbols compares them (see cmake/zorvel.map). Generated\n"
  "# from the built library, after a reviewed change of the ABI, by\n"
  "#   cmake --build <build> --target zorvel_update_symbols\n")

if(UPDATE)
  if(NOT SYMBOLS)
    message(FATAL_ERROR "UPDATE needs SYMBOLS, the list to write")
  endif()
  file(WRITE ${SYMBOLS} "${header}${actual}")
  list(LENGTH entries count)
  message(STATUS "wrote ${count} exported symbols of ${LIBRARY} to ${SYMBOLS}")
  if(bad)
    message(WARNING "of which these should not be exported:\n${bad}")
  endif()
  return()
endif()

set(failures "")
if(ok EQUAL 0)
  string(APPEND failures "no zv_client:: or logt:: symbol exported by ${LIBRARY}\n")
endif()
if(bad)
  string(APPEND failures "unexpected exported symbols in ${LIBRARY} (internals, or outside zv_client:: and logt::):\n${bad}")
endif()

if(SYMBOLS)
  file(READ ${SYMBOLS} expected)
  # The comment lines at the top are not part of the comparison.
  string(REGEX REPLACE "(^|\n)#[^\n]*" "\\1" expected "${expected}")
  string(REGEX REPLACE "^\n+" "" expected "${expected}")
  if(NOT expected STREQUAL actual)
    get_filename_component(work ${LIBRARY} DIRECTORY)
    set(actual_file ${work}/zorvel.symbols.actual)
    set(expected_file ${work}/zorvel.symbols.expected)
    file(WRITE ${actual_file} "${actual}")
    file(WRITE ${expected_file} "${expected}")
    find_program(DIFF diff)
    set(difference "")
    if(DIFF)
      execute_process(COMMAND ${DIFF} -U0 --label "${SYMBOLS}" --label "exported by ${LIBRARY}"
                              ${expected_file} ${actual_file}
        OUTPUT_VARIABLE difference)
    else()
      set(difference "(no diff program: compare ${expected_file} with ${actual_file})\n")
    endif()
    string(APPEND failures
      "the exported symbols differ from the reviewed list (- listed but not exported, + exported but not listed):\n"
      "${difference}"
      "If this change of the ABI is intended: a new export goes into the newest\n"
      "version node of cmake/zorvel.map (never into a released one; a removed one\n"
      "breaks applications built against an earlier release), then refresh the list:\n"
      "  cmake --build <build> --target zorvel_update_symbols\n"
      "or\n"
      "  ${regenerate}\n")
  endif()
endif()

if(unlisted)
  string(APPEND failures
    "exported only through a catch-all pattern of ${MAP}; list each by its\n"
    "exact signature, quoted, in the newest version node:\n${unlisted}")
endif()

if(failures)
  # Printed as it is: FATAL_ERROR would re-wrap the diff.
  message(NOTICE "${failures}")
  message(FATAL_ERROR "the exported symbols of ${LIBRARY} are not as reviewed (see above)")
endif()
list(LENGTH entries count)
message(STATUS "${count} exported names (${ok} symbols) of zv_client:: and logt:: as listed, ${tolerated} std:: instantiations tolerated")
