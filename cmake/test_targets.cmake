# GoogleTest: the packaged library where there is one, its packaged sources where we cross-build.
if(CMAKE_CROSSCOMPILING)
  set(INSTALL_GTEST OFF)
  set(BUILD_GMOCK OFF)
  add_subdirectory(/usr/src/googletest "${CMAKE_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL)
  if(NOT TARGET GTest::gtest)
    add_library(GTest::gtest ALIAS gtest)
    add_library(GTest::gtest_main ALIAS gtest_main)
  endif()
else()
  find_package(GTest REQUIRED)
endif()
include(GoogleTest)

# kestrun_tests(NAME LAYERS layer... [TIMEOUT seconds]): every *_test.cc of this folder and of the folders of its rooms in one program. Each test
# runs in a process of its own with its own time limit, so that a hung one hangs nobody else.
function(kestrun_tests name)
  cmake_parse_arguments(TESTS "" "TIMEOUT" "LAYERS;SOURCES" ${ARGN})
  if(NOT TESTS_TIMEOUT)
    set(TESTS_TIMEOUT 60)
  endif()
  set(sources ${TESTS_SOURCES})
  if(NOT sources)
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*_test.cc")
  endif()
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  # What is measured is the product; the tests themselves only have to compile quickly.
  target_compile_options(${name} PRIVATE -O0)
  foreach(layer ${TESTS_LAYERS})
    target_link_libraries(${name} PRIVATE kestrun_${layer})
  endforeach()
  target_link_libraries(${name} PRIVATE kestrun_test_support kestrun_warnings)
  # Many tests run it; without it they would wait for a tool that never comes.
  add_dependencies(${name} test_tool)
  kestrun_precompile(${name} platform_tests <algorithm> <atomic> <filesystem> <fstream> <functional> <future>
                     <gtest/gtest.h> <map> <memory> <mutex> <string> <thread> <vector>)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT ${TESTS_TIMEOUT} LABELS ${name})
endfunction()
