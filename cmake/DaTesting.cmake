# da_add_gtest(NAME SOURCES src... [LIBS lib...] [LABELS label...] [ALL_BACKENDS])
#
# Builds one GoogleTest executable and registers its tests with CTest. Tests
# labelled `tsan` are the concurrency tests: only they are built in the
# ThreadSanitizer tree (DA_TSAN_ONLY). ALL_BACKENDS registers the tests once
# more for each TDS protocol version, named tds50.<test> and tds74.<test> and
# labelled `freetds`: they reach the same database files through the FreeTDS
# driver and the TDS test server (DA_TEST_BACKEND, tests/support/Backend.h).
include(GoogleTest)
find_package(GTest REQUIRED)

function(da_add_gtest name)
  cmake_parse_arguments(ARG "ALL_BACKENDS" "" "SOURCES;LIBS;LABELS" ${ARGN})
  if(DA_TSAN_ONLY AND NOT "tsan" IN_LIST ARG_LABELS)
    return()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE da_test_support ${ARG_LIBS} GTest::gmock GTest::gtest GTest::gtest_main)
  da_warnings(${name})
  # Sources find the tree through the compile definitions DA_SOURCE_DIR and
  # DA_BINARY_DIR of da_test_support.
  gtest_discover_tests(${name} WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR} DISCOVERY_TIMEOUT 60
    DISCOVERY_MODE PRE_TEST TEST_LIST ${name}_TESTS)
  da_label_tests(${name}_TESTS "${ARG_LABELS}")
  if(ARG_ALL_BACKENDS)
    set(labels ${ARG_LABELS} freetds)
    foreach(backend tds50 tds74)
      gtest_discover_tests(${name} WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR} DISCOVERY_TIMEOUT 60
        DISCOVERY_MODE PRE_TEST TEST_LIST ${name}_${backend}_TESTS TEST_PREFIX ${backend}.
        PROPERTIES ENVIRONMENT DA_TEST_BACKEND=${backend})
      da_label_tests(${name}_${backend}_TESTS "${labels}")
    endforeach()
  endif()
endfunction()

# Gives the tests that gtest_discover_tests listed in `list_var` all of
# `labels`. Labels passed through its PROPERTIES lose every entry after the
# first, so they are set by a script that CTest reads after the discovery.
function(da_label_tests list_var labels)
  if(NOT labels)
    return()
  endif()
  set(script ${CMAKE_CURRENT_BINARY_DIR}/${list_var}_labels.cmake)
  file(WRITE ${script} "if(${list_var})\n  set_tests_properties(\${${list_var}} PROPERTIES LABELS \"${labels}\")\nendif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${script})
endfunction()
