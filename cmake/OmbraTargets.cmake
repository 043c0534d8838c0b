# What nearly every source includes, parsed once per target: a clean build takes half the time with it. Sources include
# what they use all the same, so that they compile without it.
function(ombra_precompile target)
  target_precompile_headers(${target} PRIVATE
    <algorithm> <atomic> <cerrno> <chrono> <cstdint> <cstring> <functional> <map> <memory> <optional> <set> <string>
    <string_view> <thread> <utility> <vector> <fmt/format.h> <fcntl.h> <sys/stat.h> <unistd.h>)
endfunction()

# One library per folder. Sources are picked up from the folder, so that a new file needs no change here.
# ombra_library(NAME [LINK targets...])
function(ombra_library name)
  cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(${name} STATIC ${sources} ${PROJECT_SOURCE_DIR}/cmake/empty.cpp)
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_LINK} fmt::fmt)
  ombra_precompile(${name})
  # The reason of a hard failure names its source file: below the tree, not where the tree happens to be.
  target_compile_options(${name} PRIVATE -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
endfunction()

# ombra_test(NAME FOLDER [LINK targets...] [LABELS labels...] [TIMEOUT seconds])
# One test program of all sources in tests/FOLDER; ctest runs it as a whole.
function(ombra_test name folder)
  cmake_parse_arguments(ARG "" "TIMEOUT" "LINK;LABELS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/${folder}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${ARG_LINK} GTest::gmock GTest::gtest)
  target_precompile_headers(${name} PRIVATE <gtest/gtest.h> <gmock/gmock.h>)
  # Compiled once and run for seconds: optimising the tests themselves costs more than it gives.
  target_compile_options(${name} PRIVATE -O0)
  add_test(NAME ${name} COMMAND ${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  # What may take longest begins first.
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} COST ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()
