# GoogleTest from the sources of Debian's package, built for every target in the same way, and
# sysconfig_add_test(), which makes one test program and its CTest entry.
set(SYSCONFIG_GOOGLETEST /usr/src/googletest CACHE PATH "Sources of GoogleTest")
if(NOT EXISTS ${SYSCONFIG_GOOGLETEST}/CMakeLists.txt)
  message(FATAL_ERROR "${SYSCONFIG_GOOGLETEST} is missing; run tools/setup.sh check first")
endif()

set(INSTALL_GTEST OFF)
set(BUILD_GMOCK OFF)
# Shared: in three dozen programs it would weigh more than the memory of the device's box has room for.
set(BUILD_SHARED_LIBS ON)
add_subdirectory(${SYSCONFIG_GOOGLETEST} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
unset(BUILD_SHARED_LIBS)

# Test programs spend their time in system calls and the compiler, so those that the CPU runs itself
# are not optimised; those that an emulator runs gain more than the compiler costs. In a sanitized
# build the library is checked in full, the tests for addresses only and the framework not at all,
# which halves the time to compile them.
set(level $<IF:$<BOOL:${CMAKE_CROSSCOMPILING_EMULATOR}>,-O1,-O0>)
foreach(target gtest gtest_main)
  set_target_properties(${target} PROPERTIES COMPILE_WARNING_AS_ERROR OFF)
  target_compile_options(${target} PRIVATE ${level} -g0 -fno-sanitize=all)
endforeach()
# gcc 12 sees overflows in std::string's short texts where there are none.
set(SYSCONFIG_TEST_OPTIONS ${level} -g0 -fno-sanitize=undefined
    $<$<CXX_COMPILER_ID:GNU>:-Wno-stringop-overflow>)

# The headers that cost most, compiled once for all test programs.
file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/gtest_pch.cc CONTENT "#include <gtest/gtest.h>\n")
add_library(gtest_pch OBJECT ${CMAKE_BINARY_DIR}/gtest_pch.cc)
target_link_libraries(gtest_pch PUBLIC gtest)
target_compile_options(gtest_pch PRIVATE ${SYSCONFIG_TEST_OPTIONS})
target_precompile_headers(gtest_pch PRIVATE
  <algorithm> <filesystem> <fstream> <functional> <map> <set> <string> <vector> <gtest/gtest.h>)

# sysconfig_add_test(<name> <source>... [LIBRARIES <target>...])
# Each program writes its results to results/<name>.xml, where tools/check counts them. The time limit
# is for what hangs: beside eight busy processes the longest takes over five minutes.
function(sysconfig_add_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "LIBRARIES")
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  target_compile_options(${name} PRIVATE ${SYSCONFIG_TEST_OPTIONS})
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} gtest)
  target_precompile_headers(${name} REUSE_FROM gtest_pch)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES
    TIMEOUT 1500
    ENVIRONMENT "GTEST_OUTPUT=xml:${CMAKE_BINARY_DIR}/results/${name}.xml")
endfunction()
