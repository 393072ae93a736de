# Every test runs inside the sandbox: its absolute paths are private, and no test can restart the machine.
include(GoogleTest)
find_package(GTest REQUIRED)

set(wex_test_runner)
if(WEX_SANITIZE MATCHES thread)  # a report of any process fails the test
  set(wex_test_runner ${CMAKE_SOURCE_DIR}/tests/harness/tsan_run ${CMAKE_SOURCE_DIR}/tests/tsan.supp ${CMAKE_BINARY_DIR}/races)
endif()
list(APPEND wex_test_runner ${CMAKE_CROSSCOMPILING_EMULATOR})

# Cases that run a daemon of their own stand in lines, and one of each line runs at a time. What needs the machine for
# itself stands in all of them.
set(WEX_DAEMON_LINES daemon domain_daemon patient_daemon other_daemon)

# wex_add_tests(<name> [DAEMON] SOURCES ... [LIBRARIES ...] [LABELS ...] [LOCKS ...]): one test program.
# DAEMON: the cases run the real daemon, and each is a ctest entry with a sandbox of its own. Cases with one of
# their LOCKS in common (daemon, if none is named) run one after the other.
# Without it all cases are one ctest entry, and share one sandbox and one process: the leak gate of the harness
# makes the device clean between them. WEX_EACH_CASE=1 in the environment of ctest adds one entry a case.
function(wex_add_tests name)
  cmake_parse_arguments(arg "DAEMON" "" "SOURCES;LIBRARIES;LABELS;LOCKS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE wex_test_harness wex_core ${arg_LIBRARIES} GTest::gtest)
  target_link_libraries(${name} PRIVATE wex_warnings)
  target_precompile_headers(${name} REUSE_FROM wex_test_harness)
  target_compile_options(${name} PRIVATE -O0)  # what is tested is optimised; the tests need only be built quickly
  target_compile_definitions(${name} PRIVATE
    WEX_BINARY="$<TARGET_FILE:wex>" WEX_BUILD_DIR="${CMAKE_BINARY_DIR}" WEX_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  set_target_properties(${name} PROPERTIES CROSSCOMPILING_EMULATOR
    "${CMAKE_SOURCE_DIR}/tests/harness/run-test;${CMAKE_BINARY_DIR};${wex_test_runner}")
  set(timeout 120)
  if("slow" IN_LIST arg_LABELS)
    set(timeout 1200)  # they wait as long as the daemon does
  endif()
  set(properties TIMEOUT ${timeout})
  if(arg_LABELS)
    list(APPEND properties LABELS ${arg_LABELS})
  endif()
  if(arg_DAEMON)
    add_dependencies(${name} wex actor)
  else()
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT 600)
    if(arg_LABELS)
      set_tests_properties(${name} PROPERTIES LABELS "${arg_LABELS}")
    endif()
  endif()
  gtest_discover_tests(${name} NO_PRETTY_VALUES DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
  if(arg_DAEMON)
    if(NOT arg_LOCKS)
      set(arg_LOCKS daemon)
    endif()
    wex_lock_cases(${name} "${arg_LOCKS}")
  else()
    wex_hide_single_cases(${name})
  endif()
endfunction()

# To be read by ctest behind the entries that gtest_discover_tests has made.
function(wex_write_for_ctest file text)
  file(WRITE "${file}.new" "${text}")
  file(COPY_FILE "${file}.new" "${file}" ONLY_IF_DIFFERENT)
endfunction()

# A list cannot be passed through gtest_discover_tests.
function(wex_lock_cases name locks)
  set(file "${CMAKE_CURRENT_BINARY_DIR}/${name}_locks.cmake")
  wex_write_for_ctest("${file}" "set_tests_properties(\${${name}_TESTS} PROPERTIES RESOURCE_LOCK \"${locks}\")\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${file}")
endfunction()

# Puts those entries behind WEX_EACH_CASE.
function(wex_hide_single_cases name)
  get_property(files DIRECTORY PROPERTY TEST_INCLUDE_FILES)
  list(POP_BACK files single_cases)
  set(file "${CMAKE_CURRENT_BINARY_DIR}/${name}_on_demand.cmake")
  wex_write_for_ctest("${file}" "if(DEFINED ENV{WEX_EACH_CASE})\n  include(\"${single_cases}\")\nendif()\n")
  set_property(DIRECTORY PROPERTY TEST_INCLUDE_FILES "${files};${file}")
endfunction()
