# How our own code is compiled: `brelo_options` carries it, `brelo_optimise` adds link-time optimisation.

if(PROJECT_IS_TOP_LEVEL)
  if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release)
  endif()
  set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

  find_program(CCACHE ccache)
  if(CCACHE)
    # All paths are absolute: what one build directory compiled serves the others as well.
    # Precompiled headers are served as well.
    set(CMAKE_C_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
      CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_C_COMPILER_LAUNCHER})
  endif()
endif()

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)

# Assertions, ours and those of the libraries in our headers, are behaviour: they stay in every configuration.
add_library(brelo_options INTERFACE)
target_compile_options(brelo_options INTERFACE
  -UNDEBUG
  -Wall -Wextra -Wpedantic -Wshadow -Wcast-qual -Wformat=2 -Wundef
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast>
  $<$<BOOL:${PROJECT_IS_TOP_LEVEL}>:-Werror>
  -fno-semantic-interposition
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)

set(BRELO_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")
if(BRELO_SANITIZE)
  target_compile_options(brelo_options INTERFACE
    -fsanitize=${BRELO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    -fno-sanitize=vptr) # it opens a pipe for each check, and fails with a full descriptor table
  target_link_options(brelo_options INTERFACE -fsanitize=${BRELO_SANITIZE})
endif()

# For what stands around the libraries (tests, examples, the tool), in builds with sanitizers: it is neither
# optimised nor looked at for undefined behaviour. Most of its code comes from headers of others, and takes
# half as long to compile then. The tool's parsers are looked at in the fuzz targets.
add_library(brelo_light INTERFACE)
if(BRELO_SANITIZE)
  target_compile_options(brelo_light INTERFACE -O0 -fno-sanitize=undefined)
endif()

# What most files of a library include of others, those named as well, is parsed once. It hides an include
# that is missing: packages are built without it.
function(brelo_precompile target)
  target_precompile_headers(${target} PRIVATE
    <algorithm> <chrono> <cstring> <functional> <memory> <sstream> <string> <unordered_map> <vector> ${ARGN})
endfunction()

# The files of a test program, or of a page's code, are compiled as one, which takes less than half as long:
# most of their code comes from templates of others. A build for edit and run does without.
option(BRELO_COMPILE_TOGETHER "Compile the files of a test program together" ON)

# Counts which lines run: for `./dev coverage`.
option(BRELO_LINE_COUNTS "Count which lines run" OFF)
function(brelo_count_lines target)
  if(BRELO_LINE_COUNTS)
    target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/test/support/LineCounts.cpp)
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/test)
    target_compile_definitions(${target} PUBLIC BRELO_LINE_COUNTS)
  endif()
endfunction()

# A shared library exports what its headers mark, and nothing of what templates of others leave behind.
function(brelo_export_own_names target)
  brelo_count_lines(${target})
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  set(script ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  target_link_options(${target} PRIVATE -Wl,--version-script=${script})
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${script})
endfunction()

# What is installed makes faults harder to use: overrun buffers, jumps into the middle, stacks that meet
# the heap, writable tables. `.ci/hardened` looks whether it came out so.
function(brelo_harden target)
  if(BRELO_SANITIZE)
    return()
  endif()
  target_compile_options(${target} PRIVATE
    -fstack-protector-strong -fstack-clash-protection
    -fno-plt # with all addresses bound at load, the detour would be for nothing
    $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},x86_64>:-fcf-protection>
    $<$<CONFIG:Release>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
  target_link_options(${target} PRIVATE -Wl,-z,relro,-z,now)
endfunction()

# Link-time optimisation, so that hot paths inline across files: of the sources that match the expression.
# For the others it takes far longer than to compile them, and they gain nothing.
function(brelo_optimise target hot)
  if(BRELO_SANITIZE)
    return()
  endif()
  set_target_properties(${target} PROPERTIES
    INTERPROCEDURAL_OPTIMIZATION_RELEASE ON
    INTERPROCEDURAL_OPTIMIZATION_RELWITHDEBINFO ON)
  get_target_property(sources ${target} SOURCES)
  list(FILTER sources EXCLUDE REGEX ${hot})
  set_property(SOURCE ${sources} APPEND PROPERTY COMPILE_OPTIONS -fno-lto)
endfunction()
