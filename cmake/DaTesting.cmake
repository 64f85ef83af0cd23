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
  if(ARG_LABELS)
    gtest_discover_tests(${name} WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR} DISCOVERY_TIMEOUT 60
      PROPERTIES LABELS "${ARG_LABELS}")
  else()
    gtest_discover_tests(${name} WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR} DISCOVERY_TIMEOUT 60)
  endif()
  if(ARG_ALL_BACKENDS)
    set(labels ${ARG_LABELS} freetds)
    foreach(backend tds50 tds74)
      gtest_discover_tests(${name} WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR} DISCOVERY_TIMEOUT 60
        TEST_PREFIX ${backend}. PROPERTIES LABELS "${labels}" ENVIRONMENT DA_TEST_BACKEND=${backend})
    endforeach()
  endif()
endfunction()
