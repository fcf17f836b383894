# Checks the dynamic symbols of LIBRARY: the library's namespaces only, and
# none of its internals. With STRICT off, std:: template instantiations are
# tolerated: GCC gives them default visibility even under -fvisibility=hidden
# unless a version script (cmake/zorvel.map) hides them.
execute_process(COMMAND nm -D --defined-only -C ${LIBRARY}
  OUTPUT_VARIABLE listing RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "nm -D failed on ${LIBRARY}")
endif()

# What a header outside the installed set declares, or what no one outside
# the library should reach.
set(internal "::detail::|CallbackAnchor|CallbackScope|::testing::|CurrentClient|BasenameOffset|\\(anonymous namespace\\)")
set(ours "^(zv_client|logt)::")
set(special "^(typeinfo name for |typeinfo for |vtable for |VTT for |guard variable for |non-virtual thunk to |virtual thunk to )")

string(REPLACE "\n" ";" lines "${listing}")
set(ok 0)
set(tolerated 0)
set(bad "")
foreach(line IN LISTS lines)
  if(NOT line MATCHES "^[0-9a-fA-F]* *([A-Za-z]) (.*)$")
    continue()
  endif()
  set(type ${CMAKE_MATCH_1})
  set(name "${CMAKE_MATCH_2}")
  string(REGEX REPLACE "${special}" "" subject "${name}")
  if(subject MATCHES "${ours}" AND NOT subject MATCHES "${internal}")
    math(EXPR ok "${ok} + 1")
  elseif(NOT STRICT AND type MATCHES "^[WVu]$" AND subject MATCHES "^([^<(]* )?std::" AND NOT subject MATCHES "${internal}")
    math(EXPR tolerated "${tolerated} + 1")
  else()
    string(APPEND bad "  ${type} ${name}\n")
  endif()
endforeach()

if(ok EQUAL 0)
  message(FATAL_ERROR "no zv_client:: or logt:: symbol exported by ${LIBRARY}")
endif()
if(bad)
  message(FATAL_ERROR "unexpected exported symbols in ${LIBRARY}:\n${bad}")
endif()
message(STATUS "${ok} exported symbols of zv_client:: and logt::, ${tolerated} std:: instantiations tolerated")
