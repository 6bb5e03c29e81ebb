# SPDX-License-Identifier: Apache-2.0
# Fails when the program PROGRAM carries code of the lab. A lab symbol is one that
#  - lies in the lab's namespace (sim::), or
#  - has a name part that begins with World, or with Sim and a capital (SimWorld, SimCamera,
#    WorldSpec, WorldClock), or
#  - is defined in a source file of the lab: platform/sim/ or platform/usbip/ (from the debug
#    information, which `nm -l` reads).
# The program is checked as built (unstripped), so that the last rule has something to read:
# at least one symbol must come from platform/posix/, or the check would pass on a binary
# without debug information.
execute_process(COMMAND nm -C -l ${PROGRAM} OUTPUT_VARIABLE symbols RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "nm could not read ${PROGRAM}")
endif()
string(REPLACE ";" "," symbols "${symbols}")
string(REGEX REPLACE "\n" ";" symbols "${symbols}")
set(found "")
set(located FALSE)
foreach(line IN LISTS symbols)
  if(line MATCHES "/platform/posix/")
    set(located TRUE)
  endif()
  if(line MATCHES "(^|[^A-Za-z0-9_])(sim::|Sim[A-Z]|World)" OR line MATCHES "/platform/(sim|usbip)/")
    string(APPEND found "  ${line}\n")
  endif()
endforeach()
if(NOT located)
  message(FATAL_ERROR "${PROGRAM} has no line information; build it with debug information")
endif()
if(found)
  message(FATAL_ERROR "${PROGRAM} refers to the lab:\n${found}")
endif()
message(STATUS "${PROGRAM}: no lab symbol")
