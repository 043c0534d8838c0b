# Language level, warnings, sanitizers and the compiler cache, for every target of the tree.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
# Where sources are compiled together, templates that many of them use are compiled once for all of these.
set(CMAKE_UNITY_BUILD_BATCH_SIZE 16)

option(OMBRA_TESTS "Build the tests" ON)
option(OMBRA_BENCH "Build the benchmarks" ON)
option(OMBRA_FUZZ "Build the fuzzers (clang only)" OFF)
set(OMBRA_SANITIZE "" CACHE STRING "Sanitizers to compile with, as -fsanitize= takes them")

find_program(OMBRA_CCACHE ccache)
if(OMBRA_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${OMBRA_CCACHE})
endif()

if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  set(OMBRA_OVERLOADED_VIRTUAL -Woverloaded-virtual=1)  # g++ has this level from version 13 on
endif()
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor ${OMBRA_OVERLOADED_VIRTUAL} -Wcast-qual -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 takes some inlined strings and optionals of its own library for overlapping, too long or uninitialised,
  # and designated initialisers that leave out defaulted members for mistakes.
  add_compile_options(-Wno-restrict -Wno-stringop-overflow -Wno-array-bounds -Wno-maybe-uninitialized
                      -Wno-missing-field-initializers)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # A lock that is not held where the annotations ask for it is a compile error.
  add_compile_options(-Wthread-safety -Wno-unknown-warning-option)
endif()
add_compile_definitions(_FILE_OFFSET_BITS=64)
# The reason of a hard failure names its source file: below the tree, not where the tree happens to be.
add_compile_options(-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)

find_program(OMBRA_LLD ld.lld)
if(OMBRA_LLD)
  add_link_options(-fuse-ld=lld)
endif()

if(OMBRA_SANITIZE)
  add_compile_options(-fsanitize=${OMBRA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${OMBRA_SANITIZE})
endif()
