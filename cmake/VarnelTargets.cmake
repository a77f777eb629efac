# SPDX-License-Identifier: MIT
# One place for what every target of this tree has in common.

set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Warnings, sanitizers, and source paths relative to the tree, so that log lines read the same
# whatever folder the build runs in.
add_library(varnel_options INTERFACE)
target_include_directories(varnel_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(varnel_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "arm" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # Notes about a calling convention that changed with GCC 7: nothing here was built with an older.
  target_compile_options(varnel_options INTERFACE -Wno-psabi)
endif()
if(VARNEL_WERROR)
  target_compile_options(varnel_options INTERFACE -Werror)
endif()
if(VARNEL_SANITIZE)
  target_compile_options(varnel_options INTERFACE
    -fsanitize=${VARNEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  target_link_options(varnel_options INTERFACE -fsanitize=${VARNEL_SANITIZE})
endif()

# varnel_leaves_blocks_allocated([TESTS target...] [PROGRAMS target...]): these destroy drivers of motors
# or memories, which leave a block allocated on purpose. The sanitizers are told of these blocks and of
# no other; in programs, which run under the launcher, of every block from the library: what the
# launcher preloads keeps the symbolizer from starting, and functions have no names there.
function(varnel_leaves_blocks_allocated)
  cmake_parse_arguments(arg "" "" "TESTS;PROGRAMS" ${ARGN})
  if(VARNEL_SANITIZE)
    foreach(target IN LISTS arg_TESTS arg_PROGRAMS)
      target_sources(${target} PRIVATE
        ${PROJECT_SOURCE_DIR}/tests/varnel/chips/Sanitizers.cpp)
    endforeach()
    foreach(target IN LISTS arg_PROGRAMS)
      target_compile_definitions(${target} PRIVATE RUNS_UNDER_LAUNCHER)
    endforeach()
  endif()
endfunction()

# varnel_precompile(TARGET header...): parses these once for all sources, in builds that join sources.
# Others show which source forgot an include.
function(varnel_precompile target)
  if(CMAKE_UNITY_BUILD)
    target_precompile_headers(${target} PRIVATE ${ARGN})
  endif()
endfunction()

# Coverage is wanted of the libraries, not of their tests.
add_library(varnel_coverage INTERFACE)
if(VARNEL_COVERAGE)
  # Counted by several threads at once.
  target_compile_options(varnel_coverage INTERFACE --coverage -fprofile-update=atomic -O0 -fno-inline)
  target_link_options(varnel_coverage INTERFACE --coverage)
endif()

# varnel_shared_library(TARGET VERSION_SCRIPT): SONAME, symbol visibility and build flags of a
# library that is installed.
function(varnel_shared_library target version_script)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:varnel_options>)
  set_target_properties(${target} PROPERTIES
    VERSION 1.0.0 SOVERSION 1 LINK_DEPENDS ${version_script})
  target_link_options(${target} PRIVATE
    LINKER:--version-script=${version_script} LINKER:--no-undefined-version)
  if(NOT VARNEL_SANITIZE)
    target_link_options(${target} PRIVATE LINKER:--no-undefined)
  endif()
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    # Pages of 32-bit ARM kernels. Newer linkers align for 64 KB, which pads half as much again.
    target_link_options(${target} PRIVATE LINKER:-z,max-page-size=4096)
  endif()
endfunction()
