# Flags that hold for every target of a build tree: language level, warnings, sanitizers, coverage, output places.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

option(KZV_BENCH "Build the benchmarks" OFF)
option(KZV_HARDENING "Compile optimised trees with the protections below; OFF to measure their price" ON)
option(KZV_FUZZ "Build the fuzz targets (needs clang)" OFF)
option(KZV_COVERAGE "Instrument for coverage" OFF)
set(KZV_SANITIZER "" CACHE STRING "address, thread or empty")

include(CTest)

find_program(KZV_CCACHE ccache)
if(KZV_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${KZV_CCACHE})
endif()

if(KZV_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(KZV_SANITIZER STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(KZV_SANITIZER)
  message(FATAL_ERROR "KZV_SANITIZER must be address, thread or empty, not '${KZV_SANITIZER}'")
endif()
if(KZV_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()
if(KZV_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()

# Hardening narrows what a mistake of ours, or a library's, can be turned into. Stack protector and clash protection cost a
# few instructions in functions with arrays, FORTIFY and the library's assertions a compare at a call or an index,
# control-flow marks one instruction a function. Together our JSON reader took 3 % more processor time, the writer 9 %
# (benchmarks/json_bench, 2,000 entries, best of 12 runs in turn with -DKZV_HARDENING=OFF). FORTIFY needs optimisation and
# hides what the sanitizers look for, so debug and sanitized trees go without. All relocations are resolved at the start and
# then read-only.
if(KZV_HARDENING AND NOT KZV_SANITIZER AND NOT KZV_FUZZ AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  set(KZV_HARDENED ON)
  add_compile_options(-fstack-protector-strong -fstack-clash-protection -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2
    -D_GLIBCXX_ASSERTIONS)
  include(CheckCXXCompilerFlag)
  check_cxx_compiler_flag(-fcf-protection KZV_HAS_CF_PROTECTION)  # x86 only
  if(KZV_HAS_CF_PROTECTION)
    add_compile_options(-fcf-protection)
  endif()
endif()
add_link_options(-Wl,-z,relro,-z,now)

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib/kzv)
set(KZV_BUNDLE_DIR ${CMAKE_BINARY_DIR}/lib/kzv/KZVDropboxFS.bundle)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../lib/kzv;$ORIGIN;$ORIGIN/..")

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
