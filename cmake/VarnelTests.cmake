# SPDX-License-Identifier: MIT
# varnel_test(TARGET SOURCES file... LIBS library... [LABELS label...])
#
# One test program, registered as one CTest: starting a process under emulation costs more than
# most of its cases. Labels:
#   native       starts a second program, so it can't run under emulation
#   concurrency  runs under the thread sanitizer
# and "cases" by itself: a program of the test framework
# Everything that runs under the thread sanitizer.
add_custom_target(concurrency_tests)

# The test framework's headers cost more than most test files: parsed once for all of them.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/precompiled.cpp "")
add_executable(test_headers ${CMAKE_CURRENT_BINARY_DIR}/precompiled.cpp)
target_compile_features(test_headers PRIVATE cxx_std_20)
target_link_libraries(test_headers PRIVATE varnel_options GTest::gmock_main)
target_precompile_headers(test_headers PRIVATE
  <gmock/gmock.h> <gtest/gtest.h> <chrono> <functional> <map> <memory> <string> <thread> <vector>)

function(varnel_test target)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  if(CMAKE_CROSSCOMPILING AND "native" IN_LIST arg_LABELS)
    return()
  endif()
  add_executable(${target} ${arg_SOURCES})
  target_compile_features(${target} PRIVATE cxx_std_20)
  target_link_libraries(${target} PRIVATE varnel_options ${arg_LIBS} GTest::gmock_main)
  target_precompile_headers(${target} REUSE_FROM test_headers)
  if("concurrency" IN_LIST arg_LABELS)
    add_dependencies(concurrency_tests ${target})
  endif()
  add_test(NAME ${target} COMMAND ${target})
  set_tests_properties(${target} PROPERTIES LABELS "cases;${arg_LABELS}" TIMEOUT 300)
endfunction()
