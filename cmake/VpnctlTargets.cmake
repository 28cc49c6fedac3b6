# What every target of this project shares: language, warnings, hardening, sanitizers. Rooms declare their targets with
# vpnctl_library() and vpnctl_executable(); nothing else sets compiler flags. That warnings are errors is the presets' business:
# who builds a release has another compiler than we.

set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Debug, Release, RelWithDebInfo, None ..." FORCE)
endif()
include(CheckCXXSourceCompiles)
# GNU mode makes "linux" a macro; here it is a room.
set(CMAKE_CXX_EXTENSIONS OFF)
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

# Hardening is for everything, pppd's plugin too, which does not use vpnctl_options.
add_library(vpnctl_hardening INTERFACE)
target_compile_options(vpnctl_hardening INTERFACE -fstack-protector-strong)
# All symbols are bound at the start: binding one at its first call saves the vector registers on the stack, and with them
# what was last copied, secrets too.
if(NOT APPLE)
  target_link_options(vpnctl_hardening INTERFACE -Wl,-z,relro,-z,now)
endif()
if(CMAKE_BUILD_TYPE STREQUAL "Release" OR CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
  # A distribution's flags, or its compiler, may have chosen already.
  set(CMAKE_REQUIRED_FLAGS -O2)
  check_cxx_source_compiles("#ifdef _FORTIFY_SOURCE\n#error chosen\n#endif\nint main() {}" VPNCTL_FORTIFY)
  unset(CMAKE_REQUIRED_FLAGS)
  if(VPNCTL_FORTIFY AND NOT VPNCTL_SANITIZE)
    target_compile_definitions(vpnctl_hardening INTERFACE _FORTIFY_SOURCE=2)
  endif()
endif()

add_library(vpnctl_options INTERFACE)
target_link_libraries(vpnctl_options INTERFACE vpnctl_hardening)
target_compile_features(vpnctl_options INTERFACE cxx_std_20 c_std_11)
target_compile_options(vpnctl_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wvla $<$<BOOL:${VPNCTL_WERROR}>:-Werror>
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast>
  $<$<CXX_COMPILER_ID:GNU>:$<$<COMPILE_LANGUAGE:CXX>:-Wsuggest-override>>
  # At -O3 g++ 12 sees overlapping copies inside of std::string's operator+ (GCC bug 105651).
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
target_include_directories(vpnctl_options INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR})
if(VPNCTL_SANITIZE)
  # The check of virtual tables opens a pipe to look at an object. With no descriptor left, which is what some tests are
  # about, it takes every object for none.
  # A report needs lines, no variables.
  target_compile_options(vpnctl_options INTERFACE -fsanitize=${VPNCTL_SANITIZE} -fno-sanitize=vptr -fno-omit-frame-pointer
    -fno-sanitize-recover=all -g1)
  target_link_options(vpnctl_options INTERFACE -fsanitize=${VPNCTL_SANITIZE})
endif()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
# Programs are also linked so, whatever the compiler's default is.
include(CheckPIESupported)
check_pie_supported()

# Much of compiling a room is reading the standard library's headers: with VPNCTL_PRECOMPILE all share what was read once. What a
# file itself must include is seen by the presets without. Not for optimised builds: g++ 12 then takes the headers for ours, and warns of
# what they do.
function(vpnctl_precompile_headers)
  file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/room_headers.cpp CONTENT "// See cmake/VpnctlTargets.cmake.\n")
  # A library, because it must be compiled as its users are: position-independent for any place.
  add_library(room_headers STATIC ${PROJECT_BINARY_DIR}/room_headers.cpp)
  target_link_libraries(room_headers PRIVATE vpnctl_options)
  target_precompile_headers(room_headers PRIVATE <algorithm> <chrono> <cstdint> <filesystem> <functional> <map> <memory> <optional>
    <string> <utility> <variant> <vector>)
endfunction()

# vpnctl_library(NAME SOURCES... [USES TARGETS...] [PRIVATE_USES TARGETS...])
function(vpnctl_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;USES;PRIVATE_USES")
  add_library(${name} STATIC ${arg_SOURCES})
  # How we compile is nobody's business who links an installed library.
  target_link_libraries(${name} PUBLIC ${arg_USES} PRIVATE $<BUILD_INTERFACE:vpnctl_options> ${arg_PRIVATE_USES})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  if(TARGET room_headers AND NOT "${arg_SOURCES}" MATCHES "[.]c(;|$)")
    target_precompile_headers(${name} REUSE_FROM room_headers)
  endif()
endfunction()

# quick_start: what the programs link that a connection waits for. Loading the C++ library was 39 to 57 % of the instructions of
# each one's start. Who prefers the distribution's, which is mended without us, switches it off.
function(vpnctl_quick_start)
  option(VPNCTL_STATIC_CXX_LIBRARY "Have the C++ library inside of the programs that a connection waits for" ON)
  add_library(quick_start INTERFACE)
  if(NOT VPNCTL_STATIC_CXX_LIBRARY OR VPNCTL_SANITIZE)
    return()
  endif()
  # Some distributions have the static library in a package of its own.
  set(inside -static-libstdc++ -static-libgcc)
  set(CMAKE_REQUIRED_LINK_OPTIONS ${inside})
  check_cxx_source_compiles("#include <iostream>\nint main() { std::cout << 1; }" VPNCTL_HAS_STATIC_CXX_LIBRARY)
  if(VPNCTL_HAS_STATIC_CXX_LIBRARY)
    target_link_options(quick_start INTERFACE ${inside})
  endif()
endfunction()

# vpnctl_executable(NAME SOURCES... [USES TARGETS...])
function(vpnctl_executable name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;USES")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE vpnctl_options ${arg_USES})
endfunction()

# For what hangs. The longest test takes 80 s under the thread sanitizer, and more where the machine has other work.
set(VPNCTL_TEST_DEADLINE 400)

# How tests are compiled, beside what all targets share.
add_library(vpnctl_test_options INTERFACE)
target_compile_options(vpnctl_test_options INTERFACE
  # What is tested is optimised, and watched for undefined behaviour. What tests it is not: it is compiled more often than it
  # is run.
  $<$<CONFIG:RelWithDebInfo>:-O0 -g1 -U_FORTIFY_SOURCE>
  # GoogleTest's macros hold an if of their own, whose else is theirs.
  -Wno-dangling-else)
if(VPNCTL_SANITIZE)
  target_compile_options(vpnctl_test_options INTERFACE -fno-sanitize=undefined)
endif()

# Reading GoogleTest's headers takes longer than compiling most tests: with VPNCTL_PRECOMPILE all share what was read once.
function(vpnctl_precompile_test_headers)
  # A program, because it must be compiled as its users are: position-independent for an executable, not for a library.
  file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/test_headers.cpp CONTENT "int main() {}\n")
  add_executable(test_headers ${PROJECT_BINARY_DIR}/test_headers.cpp)
  target_link_libraries(test_headers PRIVATE vpnctl_options vpnctl_test_options GTest::gtest)
  target_precompile_headers(test_headers PRIVATE <gtest/gtest.h> <chrono> <functional> <optional>)
endfunction()

# vpnctl_test(NAME [THREADED] [ALONE] SOURCES... [USES TARGETS...]): one GoogleTest program, each of its tests known to ctest.
# With a sanitizer the program is one test, unless ALONE says that each of its tests needs a process of its own: there starting and
# ending a process takes longer than most tests.
# THREADED: what it tests has threads, so that the thread sanitizer has something to see.
function(vpnctl_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "THREADED;ALONE" "" "SOURCES;USES")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE vpnctl_options ${arg_USES} vpnctl_test_options GTest::gtest GTest::gtest_main)
  if(TARGET test_headers)
    target_precompile_headers(${name} REUSE_FROM test_headers)
  endif()
  set(properties TIMEOUT ${VPNCTL_TEST_DEADLINE})
  if(arg_THREADED)
    list(APPEND properties LABELS threaded)
    add_dependencies(threaded_tests ${name})
  endif()
  if(VPNCTL_SANITIZE AND NOT arg_ALONE)
    add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
    set_tests_properties(${name} PROPERTIES ${properties})
  else()
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES ${properties})
  endif()
endfunction()
add_custom_target(threaded_tests)

# vpnctl_fuzz(NAME SOURCE [USES TARGETS...]): a fuzz target. SOURCE defines LLVMFuzzerTestOneInput. With VPNCTL_FUZZ it is a
# libFuzzer program; otherwise a small driver replays the committed corpus tests/fuzz/corpus/NAME as an ordinary test.
function(vpnctl_fuzz name source)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "USES")
  set(corpus ${PROJECT_SOURCE_DIR}/tests/fuzz/corpus/${name})
  if(VPNCTL_FUZZ)
    add_executable(fuzz_${name} ${source})
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  else()
    add_executable(fuzz_${name} ${source} ${PROJECT_SOURCE_DIR}/tests/fuzz/ReplayCorpus.cpp)
    add_test(NAME fuzz.${name}.corpus COMMAND fuzz_${name} ${corpus})
    set_tests_properties(fuzz.${name}.corpus PROPERTIES TIMEOUT ${VPNCTL_TEST_DEADLINE})
  endif()
  target_link_libraries(fuzz_${name} PRIVATE vpnctl_options ${arg_USES})
endfunction()
