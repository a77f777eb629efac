# SPDX-License-Identifier: MIT
# cmake -DNM=... -DLIBRARY=... -DEXPECTED=... -P CheckExports.cmake: the library exports exactly
# the symbols of the list.
cmake_policy(VERSION 3.25)
execute_process(COMMAND ${NM} --dynamic --defined-only --demangle ${LIBRARY}
  OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE "\n$" "" output "${output}")
string(REPLACE "\n" ";" lines "${output}")
set(symbols "")
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^[0-9a-f]+ [A-Za-z] " "" symbol "${line}")
  list(APPEND symbols "${symbol}")
endforeach()
list(REMOVE_DUPLICATES symbols)
list(SORT symbols)

file(STRINGS ${EXPECTED} expected)
list(SORT expected)
foreach(symbol IN LISTS expected)
  if(NOT symbol IN_LIST symbols)
    message(SEND_ERROR "not exported: ${symbol}")
  endif()
endforeach()
foreach(symbol IN LISTS symbols)
  if(NOT symbol IN_LIST expected)
    message(SEND_ERROR "exported, but not in the list: ${symbol}")
  endif()
endforeach()
