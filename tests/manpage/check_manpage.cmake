# Checks the manual page PAGE of the program TOOL against what `TOOL --help`
# prints, so that an option added to the program cannot be left out of the
# page:
#  - every option defined in the help's options section (a line there that
#    starts with "-": "-v, --verbose", "--timeout SECONDS", "--",
#    "-a, --address=ADDR   text") must appear in the page's OPTIONS section;
#  - every other --long-option the help mentions (in its synopsis, commands
#    or examples) must appear somewhere in the page;
#  - the version in the page's .TH line, if it has one, is the one that
#    `TOOL --version` prints;
#  - when man is installed, `man --warnings -l PAGE` prints no warning.
cmake_minimum_required(VERSION 3.16)
foreach(variable TOOL PAGE)
  if(NOT DEFINED ${variable})
    message(FATAL_ERROR "usage: cmake -DTOOL=<program> -DPAGE=<page.1> -P check_manpage.cmake")
  endif()
endforeach()

execute_process(COMMAND ${TOOL} --help OUTPUT_VARIABLE help RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${TOOL} --help failed (${result})")
endif()

# Lines are handled as a CMake list: ';' would split one, and an unbalanced
# '[' would keep lines together.
string(REPLACE ";" "," help "${help}")
string(REPLACE "[" "(" help "${help}")
string(REPLACE "]" ")" help "${help}")
string(REPLACE "\n" ";" help_lines "${help}")

set(defined "")     # options the help defines
set(mentioned "")   # --long-options it mentions anywhere
set(in_options OFF)
foreach(line IN LISTS help_lines)
  if(line MATCHES "^(OPTIONS|[A-Za-z ]*[Oo]ptions:)[ \t]*$")
    set(in_options ON)
    continue()
  elseif(line MATCHES "^[^ \t]")
    set(in_options OFF)  # an unindented line starts the next section
  endif()
  if(in_options AND line MATCHES "^[ \t]+(-.*)$")
    # "-a, --address=ADDR    Bus address ...": the names come before the
    # first run of two spaces, each ends at a space or '='.
    string(REGEX REPLACE "  .*$" "" head "${CMAKE_MATCH_1}")
    string(REPLACE ", " ";" names "${head}")
    foreach(name IN LISTS names)
      string(REGEX REPLACE "[ =].*$" "" name "${name}")
      if(name MATCHES "^(-[A-Za-z0-9?]|--[A-Za-z0-9][A-Za-z0-9-]*|--)$")
        list(APPEND defined "${name}")
      endif()
    endforeach()
  endif()
  string(REGEX REPLACE "[^A-Za-z0-9_=-]" " " words "${line}")
  string(REGEX MATCHALL "(^| )--[A-Za-z0-9][A-Za-z0-9-]*" found "${words}")
  foreach(match IN LISTS found)
    string(STRIP "${match}" match)
    list(APPEND mentioned "${match}")
  endforeach()
endforeach()
list(REMOVE_DUPLICATES defined)
list(REMOVE_DUPLICATES mentioned)
list(REMOVE_ITEM mentioned ${defined})
if(NOT defined)
  message(FATAL_ERROR "found no option definitions in the output of ${TOOL} --help; has its layout changed?")
endif()

# The page as text: comments dropped, roff's \- read as '-', font changes and
# zero-width escapes removed.
file(READ ${PAGE} page_text)
string(REPLACE ";" "," page_text "${page_text}")
string(REPLACE "[" "(" page_text "${page_text}")
string(REPLACE "]" ")" page_text "${page_text}")
string(REPLACE "\n" ";" page_lines "${page_text}")
set(page "\n")
set(page_options "\n")
set(section "")
foreach(line IN LISTS page_lines)
  if(line MATCHES "^\\.\\\\\"")
    continue()
  endif()
  string(REPLACE "\\-" "-" line "${line}")
  string(REGEX REPLACE "\\\\f(\\(..|.)" "" line "${line}")
  string(REGEX REPLACE "\\\\[&%c]" "" line "${line}")
  if(line MATCHES "^\\.SH +\"?([^\"]*)\"?$")
    set(section "${CMAKE_MATCH_1}")
  endif()
  string(APPEND page "${line}\n")
  if(section STREQUAL "OPTIONS")
    string(APPEND page_options "${line}\n")
  endif()
endforeach()

# An option counts where it stands as a word of its own: not "-v" inside
# "--verbose", nor "--json" inside "--json-lines".
set(missing "")
foreach(option IN LISTS defined)
  string(REGEX REPLACE "([?])" "\\\\\\1" pattern "${option}")
  if(NOT page_options MATCHES "[^A-Za-z0-9-]${pattern}([^A-Za-z0-9-]|$)")
    string(APPEND missing "  ${option} (not in the OPTIONS section)\n")
  endif()
endforeach()
foreach(option IN LISTS mentioned)
  if(NOT page MATCHES "[^A-Za-z0-9-]${option}([^A-Za-z0-9-]|$)")
    string(APPEND missing "  ${option}\n")
  endif()
endforeach()
if(missing)
  message(FATAL_ERROR "${PAGE} lacks options that ${TOOL} --help prints:\n${missing}")
endif()
string(REPLACE ";" " " defined_text "${defined}")
string(REPLACE ";" " " mentioned_text "${mentioned}")
message(STATUS "${PAGE}: every option of --help present (${defined_text}; elsewhere ${mentioned_text})")

execute_process(COMMAND ${TOOL} --version OUTPUT_VARIABLE version_text RESULT_VARIABLE result)
if(result EQUAL 0 AND version_text MATCHES "([0-9]+\\.[0-9]+\\.[0-9]+)")
  set(version ${CMAKE_MATCH_1})
  if(page MATCHES "\n\\.TH [^\n]*[^0-9.]([0-9]+\\.[0-9]+\\.[0-9]+)")
    if(NOT CMAKE_MATCH_1 STREQUAL version)
      message(FATAL_ERROR "${PAGE} is for version ${CMAKE_MATCH_1}, ${TOOL} is ${version}")
    endif()
  endif()
endif()

find_program(MAN_PROGRAM man)
if(NOT MAN_PROGRAM)
  message(STATUS "man not installed: rendering not checked")
  return()
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E env MANWIDTH=80 LC_ALL=C.UTF-8 MAN_KEEP_FORMATTING=
                        ${MAN_PROGRAM} --warnings -l ${PAGE}
  OUTPUT_VARIABLE rendered ERROR_VARIABLE warnings RESULT_VARIABLE result)
if(NOT result EQUAL 0 OR NOT warnings STREQUAL "")
  message(FATAL_ERROR "man --warnings -l ${PAGE} (exit ${result}):\n${warnings}")
endif()
if(NOT rendered MATCHES "OPTIONS")
  message(FATAL_ERROR "man -l ${PAGE} rendered no OPTIONS section")
endif()
message(STATUS "${PAGE}: rendered by man without warnings")
