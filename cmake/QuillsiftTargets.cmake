# What every target of this project is built with, and the two ways to declare one.

add_library(quillsift_options INTERFACE)
target_include_directories(quillsift_options INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_options(quillsift_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
  -Woverloaded-virtual -Wimplicit-fallthrough
  -Wno-missing-field-initializers  # designated initialisers leave the rest at its default
  -Werror)
target_compile_definitions(quillsift_options INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(quillsift_options INTERFACE -Wthread-safety)
endif()
if(QUILLSIFT_SANITIZE)
  target_compile_definitions(quillsift_options INTERFACE QUILLSIFT_SANITIZED)
  target_compile_options(quillsift_options INTERFACE
    -fsanitize=${QUILLSIFT_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(quillsift_options INTERFACE -fsanitize=${QUILLSIFT_SANITIZE})
  if(QUILLSIFT_SANITIZE MATCHES "undefined")
    # This one check opens a pipe to look at an object, and raises a false alarm in every test that
    # runs out of descriptors on purpose.
    target_compile_options(quillsift_options INTERFACE -fno-sanitize=vptr)
  endif()
  if(QUILLSIFT_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # The fences of the event loop library are not modelled by the sanitizer; its locks are.
    target_compile_options(quillsift_options INTERFACE -Wno-tsan)
  endif()
else()
  target_compile_options(quillsift_options INTERFACE -fstack-protector-strong)
  target_compile_definitions(quillsift_options INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2> _GLIBCXX_ASSERTIONS)
  target_link_options(quillsift_options INTERFACE LINKER:-z,relro,-z,now)
endif()

# What an installation makes is writable by its owner alone, whatever the umask allows: the daemon
# ignores a platform tree that others can write to.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# The package that an installed file belongs to; a folder of the other one says so.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME daemon)

# With QUILLSIFT_PRECOMPILED_HEADERS, the headers that nearly every file reads are read once. Without
# it, as in the build named dev, every file has to include what it needs.
#
# quillsift_headers(name OPTIONS option... USES library... HEADERS header...)
# The options are those of the targets that reuse the result, or the compiler would refuse it.
function(quillsift_headers name)
  cmake_parse_arguments(ARG "" "" "OPTIONS;USES;HEADERS" ${ARGN})
  file(CONFIGURE OUTPUT "${CMAKE_BINARY_DIR}/${name}.cpp" CONTENT "")
  add_library(${name} OBJECT "${CMAKE_BINARY_DIR}/${name}.cpp")
  target_link_libraries(${name} PRIVATE quillsift_options ${ARG_USES})
  target_compile_options(${name} PRIVATE ${ARG_OPTIONS})
  target_precompile_headers(${name} PRIVATE ${ARG_HEADERS})
endfunction()

set(QUILLSIFT_COMMON_HEADERS
  <algorithm> <array> <atomic> <chrono> <cstdint> <functional> <map> <memory> <mutex> <optional>
  <span> <string> <string_view> <system_error> <utility> <variant> <vector>)
set(QUILLSIFT_LIBRARY_OPTIONS)
if(QUILLSIFT_FUZZ)
  set(QUILLSIFT_LIBRARY_OPTIONS -fsanitize=fuzzer-no-link)  # shows a fuzzer where it got
endif()
# Test code itself need not be fast, and optimising it is most of the time a build takes.
set(QUILLSIFT_TEST_OPTIONS -O0 -U_FORTIFY_SOURCE)

function(quillsift_library_headers)
  quillsift_headers(quillsift_library_headers
    OPTIONS ${QUILLSIFT_LIBRARY_OPTIONS} HEADERS ${QUILLSIFT_COMMON_HEADERS})
endfunction()

function(quillsift_test_headers)
  quillsift_headers(quillsift_test_headers
    OPTIONS -fPIE ${QUILLSIFT_TEST_OPTIONS} USES GTest::gmock
    HEADERS <gmock/gmock.h> <gtest/gtest.h> ${QUILLSIFT_COMMON_HEADERS}
            <condition_variable> <deque> <filesystem> <fstream> <future> <set> <thread>)
  set_target_properties(quillsift_test_headers PROPERTIES POSITION_INDEPENDENT_CODE OFF)
endfunction()

# quillsift_library(name SOURCES file... [USES lower-floor...] [PRIVATE_USES library...])
# One static library a folder; USES is the picture of who may include whom.
function(quillsift_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;USES;PRIVATE_USES" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC quillsift_options ${ARG_USES} PRIVATE ${ARG_PRIVATE_USES})
  target_compile_options(${name} PRIVATE ${QUILLSIFT_LIBRARY_OPTIONS})
  if(QUILLSIFT_PRECOMPILED_HEADERS)
    target_precompile_headers(${name} REUSE_FROM quillsift_library_headers)
  endif()
endfunction()

# quillsift_test(name SOURCES file... USES library...)
# One test program a folder; every test case is a ctest entry of its own.
function(quillsift_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;USES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE quillsift_options ${ARG_USES} GTest::gmock_main)
  target_compile_options(${name} PRIVATE ${QUILLSIFT_TEST_OPTIONS})
  if(QUILLSIFT_PRECOMPILED_HEADERS)
    target_precompile_headers(${name} REUSE_FROM quillsift_test_headers)
  endif()
  # Both limits are against hangs only: a busy machine takes its time also to list the tests.
  gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 120
                       PROPERTIES TIMEOUT 300)
endfunction()
