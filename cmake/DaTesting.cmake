# da_add_gtest(NAME SOURCES src... [LIBS lib...] [LABELS label...] [ALL_BACKENDS])
#
# Builds one GoogleTest executable and registers its tests with CTest. Tests
# labelled `tsan` are the concurrency tests: only they are built in the
# ThreadSanitizer tree (DA_TSAN_ONLY). ALL_BACKENDS registers the tests once
# more for each TDS protocol version, named tds50.<test> and tds74.<test> and
# labelled `freetds`: they reach the same database files through the FreeTDS
# driver and the TDS test server; and once more on PostgreSQL, named
# postgresql.<test> and labelled `postgresql`, on the cluster that the
# fixture `pgcluster` starts for the run (DA_TEST_BACKEND,
# tests/support/Backend.h).
include(GoogleTest)
set(DA_PG_CLUSTER_STATE ${PROJECT_BINARY_DIR}/pg-cluster.state)
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
    foreach(backend tds50 tds74 postgresql)
      gtest_discover_tests(${name} WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR} DISCOVERY_TIMEOUT 60
        DISCOVERY_MODE PRE_TEST TEST_LIST ${name}_${backend}_TESTS TEST_PREFIX ${backend}.)
      if(backend STREQUAL "postgresql")
        # The cluster that the fixture `pgcluster` starts once for the run.
        da_label_tests(${name}_${backend}_TESTS "${ARG_LABELS};postgresql"
          "DA_TEST_BACKEND=${backend};DA_TEST_PG_STATE=${DA_PG_CLUSTER_STATE}" pgcluster)
      else()
        da_label_tests(${name}_${backend}_TESTS "${ARG_LABELS};freetds" "DA_TEST_BACKEND=${backend}" "")
      endif()
    endforeach()
  endif()
endfunction()

# Gives the tests that gtest_discover_tests listed in `list_var` all of
# `labels`, and the environment `env` and the fixture `fixture` when given.
# Lists passed through its PROPERTIES lose every entry after the first, so
# they are set by a script that CTest reads after the discovery.
function(da_label_tests list_var labels)
  if(NOT labels)
    return()
  endif()
  set(props "LABELS \"${labels}\"")
  if(ARGC GREATER 2 AND ARGV2)
    string(APPEND props " ENVIRONMENT \"${ARGV2}\"")
  endif()
  if(ARGC GREATER 3 AND ARGV3)
    string(APPEND props " FIXTURES_REQUIRED ${ARGV3}")
  endif()
  set(script ${CMAKE_CURRENT_BINARY_DIR}/${list_var}_labels.cmake)
  file(WRITE ${script} "if(${list_var})\n  set_tests_properties(\${${list_var}} PROPERTIES ${props})\nendif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${script})
endfunction()
