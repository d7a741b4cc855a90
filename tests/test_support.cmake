set(MSGAPI_SANDBOX "$<TARGET_FILE:sandbox>" CACHE STRING
  "The sandbox program; one of this machine's when building for another")
set(MSGAPI_PROGRAMS ${CMAKE_BINARY_DIR}/bin CACHE PATH
  "Where tests find the project's programs, in a form that this machine can run")

if(CMAKE_CROSSCOMPILING)
  set(run_in_sandbox
    ${CMAKE_CURRENT_LIST_DIR}/emulated.sh ${MSGAPI_SANDBOX} ${CMAKE_CROSSCOMPILING_EMULATOR})
else()
  set(run_in_sandbox ${MSGAPI_SANDBOX} --)
endif()

# The headers that every test includes first, compiled once, for position-independent programs.
add_library(test_headers OBJECT ${CMAKE_CURRENT_LIST_DIR}/support/headers.cpp)
target_link_libraries(test_headers PRIVATE test_support GTest::gmock)
set_target_properties(test_headers PROPERTIES POSITION_INDEPENDENT_CODE OFF)
target_compile_options(test_headers PRIVATE ${CMAKE_CXX_COMPILE_OPTIONS_PIE})
target_precompile_headers(test_headers PRIVATE <gmock/gmock.h> <gtest/gtest.h>)

# msgapi_test(NAME sources... [LIBRARIES libs...]): one test program of GoogleTest cases.
#
# Every case runs in a process of its own inside the sandbox: the library has process-wide state and
# fixed paths, and a case must see neither another case's state nor the machine's.
function(msgapi_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "LIBRARIES")
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE test_support ${arg_LIBRARIES} msgapi_static GTest::gmock GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_precompile_headers(${name} REUSE_FROM test_headers)
  set_target_properties(${name} PROPERTIES CROSSCOMPILING_EMULATOR "${run_in_sandbox}")
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
    PROPERTIES LABELS ${name} ENVIRONMENT "MSGAPI_BIN=${MSGAPI_PROGRAMS}")
endfunction()
