# The installed tree, its documents, completions and the mount helper, in seconds; and the package in a clean system,
# in minutes (with OMBRA_NIGHTLY=1).
find_package(Python3 REQUIRED COMPONENTS Interpreter)

add_test(NAME test_package COMMAND ${Python3_EXECUTABLE} -B ${PROJECT_SOURCE_DIR}/tests/package/test_installed.py)
add_test(NAME test_package_clean_root
         COMMAND ${Python3_EXECUTABLE} -B ${PROJECT_SOURCE_DIR}/tests/package/test_clean_root.py)
set_tests_properties(test_package PROPERTIES TIMEOUT 180 LABELS mount)
set_tests_properties(test_package_clean_root PROPERTIES TIMEOUT 900 COST 900 LABELS mount SKIP_RETURN_CODE 77)
foreach(test test_package test_package_clean_root)
  set_property(TEST ${test} PROPERTY ENVIRONMENT
               "OMBRA_BUILD_DIR=${CMAKE_BINARY_DIR};OMBRA_SOURCE_DIR=${PROJECT_SOURCE_DIR};OMBRA_VERSION=${PROJECT_VERSION};OMBRA_CMAKE=${CMAKE_COMMAND}")
endforeach()
