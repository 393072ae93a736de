# Every test runs inside the sandbox: its absolute paths are private, and no test can restart the machine.
include(GoogleTest)
find_package(GTest REQUIRED)

set(wex_test_runner ${CMAKE_SOURCE_DIR}/tools/sandbox --bind ${CMAKE_BINARY_DIR} --)
if(WEX_SANITIZE MATCHES thread)  # a report of any process fails the test
  list(APPEND wex_test_runner ${CMAKE_SOURCE_DIR}/tests/harness/tsan_run ${CMAKE_SOURCE_DIR}/tests/tsan.supp
    ${CMAKE_BINARY_DIR}/races)
endif()
list(APPEND wex_test_runner ${CMAKE_CROSSCOMPILING_EMULATOR})

# wex_add_tests(<name> [DAEMON] SOURCES ... [LIBRARIES ...] [LABELS ...]): one program, one ctest entry a case.
# DAEMON: the cases run the real daemon; process events are machine-wide, so these run one at a time.
function(wex_add_tests name)
  cmake_parse_arguments(arg "DAEMON" "" "SOURCES;LIBRARIES;LABELS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE wex_core wex_test_harness ${arg_LIBRARIES} GTest::gtest GTest::gtest_main)
  target_link_libraries(${name} PRIVATE wex_warnings)
  target_compile_options(${name} PRIVATE -O0)  # what is tested is optimised; the tests need only be built quickly
  target_compile_definitions(${name} PRIVATE
    WEX_BINARY="$<TARGET_FILE:wex>" WEX_BUILD_DIR="${CMAKE_BINARY_DIR}" WEX_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  set_target_properties(${name} PROPERTIES CROSSCOMPILING_EMULATOR "${wex_test_runner}")
  set(timeout 120)
  if("slow" IN_LIST arg_LABELS)
    set(timeout 1200)  # they wait as long as the daemon does
  endif()
  set(properties TIMEOUT ${timeout})
  if(arg_DAEMON)
    list(APPEND properties RESOURCE_LOCK daemon)
    add_dependencies(${name} wex actor)
  endif()
  if(arg_LABELS)
    list(APPEND properties LABELS ${arg_LABELS})
  endif()
  gtest_discover_tests(${name} NO_PRETTY_VALUES DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
endfunction()
