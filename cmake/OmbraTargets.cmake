# What nearly every source includes, parsed once for all libraries and once for all tests: a clean build takes half the
# time with it. Sources include what they use all the same, so that they compile without it.
set(OMBRA_COMMON_HEADERS
  <algorithm> <array> <atomic> <cerrno> <chrono> <condition_variable> <cstdint> <cstring> <functional> <map> <memory>
  <mutex> <optional> <set> <string> <string_view> <thread> <unordered_map> <utility> <variant> <vector>
  <fmt/format.h> <fcntl.h> <sys/stat.h> <unistd.h>)

add_library(ombra_precompiled STATIC ${PROJECT_SOURCE_DIR}/cmake/empty.cpp)
target_link_libraries(ombra_precompiled PRIVATE fmt::fmt)
target_precompile_headers(ombra_precompiled PRIVATE ${OMBRA_COMMON_HEADERS})

function(ombra_precompile target)
  target_precompile_headers(${target} REUSE_FROM ombra_precompiled)
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
endfunction()

# Compiled once and run for seconds: optimising the tests themselves costs more than it gives.
set(OMBRA_TEST_OPTIONS -O0 -fPIE)

# Nothing but the headers of all tests, precompiled; a program, since its options must be those of the test programs.
function(ombra_precompile_for_tests)
  add_executable(ombra_tests_precompiled EXCLUDE_FROM_ALL ${PROJECT_SOURCE_DIR}/cmake/empty.cpp)
  target_compile_options(ombra_tests_precompiled PRIVATE ${OMBRA_TEST_OPTIONS})
  target_link_libraries(ombra_tests_precompiled PRIVATE fmt::fmt GTest::gmock GTest::gtest_main)
  set_target_properties(ombra_tests_precompiled PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
  target_precompile_headers(ombra_tests_precompiled PRIVATE ${OMBRA_COMMON_HEADERS} <gtest/gtest.h> <gmock/gmock.h>)
endfunction()

# What several test programs share: one library of the current folder, compiled like them.
# ombra_test_library(NAME [LINK targets...])
function(ombra_test_library name)
  cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(${name} STATIC ${sources})
  # As part of programs only, whose option is -fPIE.
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_LINK} fmt::fmt)
  target_precompile_headers(${name} REUSE_FROM ombra_tests_precompiled)
  target_compile_options(${name} PRIVATE ${OMBRA_TEST_OPTIONS})
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
  target_precompile_headers(${name} REUSE_FROM ombra_tests_precompiled)
  target_compile_options(${name} PRIVATE ${OMBRA_TEST_OPTIONS})
  add_test(NAME ${name} COMMAND ${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  # What may take longest begins first.
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} COST ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()

# A target of all that is built by default but the unit tests, for a run that leaves those to the sanitizer
# builds. To be called when all targets are known.
function(ombra_all_but_unit_tests name)
  add_custom_target(${name})
  ombra_add_programs_below(${name} ${PROJECT_SOURCE_DIR})
endfunction()

function(ombra_add_programs_below name folder)
  get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target ${targets})
    get_target_property(type ${target} TYPE)
    get_target_property(is_left_out ${target} EXCLUDE_FROM_ALL)
    get_target_property(is_unit_test ${target} OMBRA_IS_UNIT_TEST)
    if(type MATCHES "^(EXECUTABLE|MODULE_LIBRARY|SHARED_LIBRARY|UTILITY)$" AND NOT is_left_out AND NOT is_unit_test)
      add_dependencies(${name} ${target})
    endif()
  endforeach()
  get_property(folders DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
  foreach(below ${folders})
    ombra_add_programs_below(${name} ${below})
  endforeach()
endfunction()
