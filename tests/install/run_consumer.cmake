# Script run by the install_consumer test: installs the build into a fresh
# prefix, then builds a consumer with -Wall -Wextra -Werror that sees the
# installed tree only (no include path of the source or build tree), once
# through the CMake package (linking DataAccess::DataAccess alone) and once
# through pkg-config. Besides consumer.cpp it compiles a translation unit that
# includes every installed header. The programs, and the installed tools, run
# without LD_LIBRARY_PATH: the installed libraries must find their siblings.
file(REMOVE_RECURSE ${WORK_DIR})
unset(ENV{LD_LIBRARY_PATH})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
run(${prefix}/bin/stencrypt --help)
run(${prefix}/bin/tobasCClient -help)

# Internal headers stay out of the installed tree.
foreach(internal daLog sybconn/Driver.h sybconn/drivers dataAccess/catalogue/DaoSupport.h
        dataAccess/db/SelectList.h tobasCClient/tobasInternal.h)
  if(EXISTS ${prefix}/include/${internal})
    message(FATAL_ERROR "internal header installed: include/${internal}")
  endif()
endforeach()

file(GLOB_RECURSE headers RELATIVE ${prefix}/include ${prefix}/include/*.h)
list(SORT headers)
set(text "")
foreach(h ${headers})
  string(APPEND text "#include <${h}>\n")
endforeach()
file(WRITE ${WORK_DIR}/all_headers.cpp "${text}")
set(warnings -Wall -Wextra -Werror)

# 1. CMake package.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/cmake-build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DALL_HEADERS=${WORK_DIR}/all_headers.cpp)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer ${WORK_DIR})
message(STATUS "consumer (CMake package): ${last_output}")

# 2. pkg-config.
file(GLOB pcdir LIST_DIRECTORIES true ${prefix}/lib*/pkgconfig)
get_filename_component(libdir ${pcdir} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} "${pcdir}")
run(pkg-config --cflags --libs DataAccess tobasCClient)
string(STRIP "${last_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ -std=c++17 ${warnings} ${SOURCE_DIR}/consumer.cpp ${WORK_DIR}/all_headers.cpp -o ${WORK_DIR}/consumer-pc
    ${flags} -Wl,-rpath,${libdir})
run(${WORK_DIR}/consumer-pc ${WORK_DIR})
message(STATUS "consumer (pkg-config): ${last_output}")
