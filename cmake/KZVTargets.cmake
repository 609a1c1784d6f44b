# How targets are declared here: one call a library, one line a test.

get_filename_component(KZV_ROOT ${CMAKE_CURRENT_LIST_DIR} DIRECTORY)
add_library(kzv_build_flags INTERFACE)
target_compile_options(kzv_build_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual -Werror=switch)
target_include_directories(kzv_build_flags INTERFACE ${KZV_ROOT})
target_link_libraries(kzv_build_flags INTERFACE Threads::Threads)

# kzv_pkg(NAME module...): an imported target kzv::NAME for pkg-config modules; system headers, so no warnings from them.
function(kzv_pkg name)
  if(NOT TARGET PkgConfig::KZV_${name})
    pkg_check_modules(KZV_${name} REQUIRED IMPORTED_TARGET GLOBAL ${ARGN})
  endif()
endfunction()

# kzv_add_library(NAME [SHARED] SOURCES ... [LINK ...] [PRIVATE_LINK ...]): a room's library. It links only libraries
# that have been added before, so that they never go in a circle.
function(kzv_add_library name)
  cmake_parse_arguments(ARG "SHARED" "" "SOURCES;LINK;PRIVATE_LINK" ${ARGN})
  foreach(other IN LISTS ARG_LINK ARG_PRIVATE_LINK)
    if(other MATCHES "^kzv_" AND NOT TARGET ${other})
      message(FATAL_ERROR "${name} links ${other}, which lies on a higher floor (docs/ARCHITECTURE.md)")
    endif()
  endforeach()
  if(ARG_SHARED)
    add_library(${name} SHARED ${ARG_SOURCES})
  else()
    add_library(${name} STATIC ${ARG_SOURCES})
  endif()
  target_include_directories(${name} PUBLIC ${KZV_ROOT})
  target_link_libraries(${name} PUBLIC ${ARG_LINK} PRIVATE kzv_build_flags ${ARG_PRIVATE_LINK})
endfunction()

# kzv_add_test(NAME LINK ... [SOURCES ...] [LABELS ...] [TIMEOUT seconds]): NAME.cpp with GoogleTest; each case is a
# CTest test of its own. 60 s unless said otherwise: our calls have no time limit of their own, the tests do. Unit tests of
# the lower floors get the label "unit-quick": .ci/run builds these alone under the sanitizers (target quick_tests).
function(kzv_add_test name)
  if(NOT BUILD_TESTING)
    return()
  endif()
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LINK;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 60)
  endif()
  file(RELATIVE_PATH folder ${KZV_ROOT} ${CMAKE_CURRENT_SOURCE_DIR})
  if(ARG_LABELS STREQUAL "unit" AND folder MATCHES "^(foundation|json|core|mount)(/|$)")
    set(ARG_LABELS unit-quick)  # ctest takes labels as patterns: -L unit, -L quick
    set_property(GLOBAL APPEND PROPERTY KZV_QUICK_TESTS ${name})
  endif()
  find_package(GTest REQUIRED)
  include(GoogleTest)
  add_executable(${name} ${name}.cpp ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_LINK} GTest::gtest_main kzv_build_flags)
  set(environment)
  if(KZV_SANITIZER STREQUAL "thread")
    # GLib's own allocator hands memory from thread to thread under locks that ThreadSanitizer cannot see.
    set(environment ENVIRONMENT "G_SLICE=always-malloc")
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 TEST_PREFIX "${name}."
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}" ${environment})
endfunction()

# kzv_add_fuzz(NAME LINK ... CORPUS folder [SOURCES ...]): NAME.cpp, which defines LLVMFuzzerTestOneInput. In the fuzz
# preset a program of libFuzzer, named in fuzz/targets with its corpus for ./test --fuzz; else a test that runs the
# corpus once, with any compiler.
file(WRITE ${CMAKE_BINARY_DIR}/fuzz/targets "")
function(kzv_add_fuzz name)
  if(NOT KZV_FUZZ AND NOT BUILD_TESTING)
    return()
  endif()
  cmake_parse_arguments(ARG "" "CORPUS" "LINK;SOURCES" ${ARGN})
  set(corpus ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_CORPUS})
  add_executable(${name} ${name}.cpp ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
  target_link_libraries(${name} PRIVATE ${ARG_LINK} kzv_build_flags)
  if(KZV_FUZZ)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    file(APPEND ${CMAKE_BINARY_DIR}/fuzz/targets "${name} ${corpus}\n")
    set_property(GLOBAL APPEND PROPERTY KZV_FUZZ_TARGETS ${name})
  else()
    target_sources(${name} PRIVATE ${KZV_ROOT}/testing/CorpusMain.cpp)
    add_test(NAME corpus.${name} COMMAND ${name} ${corpus})
    set_tests_properties(corpus.${name} PROPERTIES LABELS unit TIMEOUT 60)
  endif()
endfunction()

# kzv_finish(): the targets "fuzzers" and "quick_tests", which build all of these; after the last one was added.
function(kzv_finish)
  get_property(fuzzers GLOBAL PROPERTY KZV_FUZZ_TARGETS)
  get_property(tests GLOBAL PROPERTY KZV_QUICK_TESTS)
  add_custom_target(fuzzers DEPENDS ${fuzzers})
  add_custom_target(quick_tests DEPENDS ${tests})
endfunction()
