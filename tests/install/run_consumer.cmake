# Script run by the install_consumer test.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# 1. CMake package.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/cmake-build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
set(ENV{LD_LIBRARY_PATH} "${prefix}/lib:$ENV{LD_LIBRARY_PATH}")
run(${WORK_DIR}/cmake-build/consumer ${WORK_DIR})
message(STATUS "consumer (CMake package): ${last_output}")

# 2. pkg-config.
file(GLOB pcdir LIST_DIRECTORIES true ${prefix}/lib*/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "${pcdir}")
run(pkg-config --cflags --libs DataAccess tobasCClient)
string(STRIP "${last_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ -std=c++17 ${SOURCE_DIR}/consumer.cpp -o ${WORK_DIR}/consumer-pc ${flags})
run(${WORK_DIR}/consumer-pc ${WORK_DIR})
message(STATUS "consumer (pkg-config): ${last_output}")
