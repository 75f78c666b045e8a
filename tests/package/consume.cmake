# cmake -P script: install, then build and run hosts against the installed package.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "Command failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${PREFIX} ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})

# 1. find_package(ElatecTWN4)
run(${CMAKE_COMMAND} -S ${HOST_SOURCE} -B ${WORK_DIR}/cmake-host -DCMAKE_PREFIX_PATH=${PREFIX}
    -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_C_COMPILER=${CC} "-DCMAKE_CXX_FLAGS=${EXTRA_FLAGS}"
    "-DCMAKE_C_FLAGS=${EXTRA_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${EXTRA_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-host)
run(${WORK_DIR}/cmake-host/host)
if(NOT last_output MATCHES "Pellucid\\|Elatec TWN4\\|[0-9]+\\.[0-9]+\\.[0-9]+\\|1\\|")
  message(FATAL_ERROR "find_package host printed an unexpected identity: ${last_output}")
endif()

# 2. pkg-config --cflags --libs elatectwn4
set(ENV{PKG_CONFIG_PATH} "${PREFIX}/lib/pkgconfig:${PREFIX}/lib/x86_64-linux-gnu/pkgconfig")
run(pkg-config --cflags --libs elatectwn4)
string(STRIP "${last_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
separate_arguments(extra UNIX_COMMAND "${EXTRA_FLAGS}")
file(MAKE_DIRECTORY ${WORK_DIR}/pkg-host)
file(GLOB libdirs ${PREFIX}/lib ${PREFIX}/lib/*-linux-gnu)
set(rpaths "")
foreach(dir IN LISTS libdirs)
  list(APPEND rpaths "-Wl,-rpath,${dir}")
endforeach()
run(${CXX} -std=c++20 ${extra} ${HOST_SOURCE}/host.cpp -o ${WORK_DIR}/pkg-host/host ${flags} ${rpaths})
run(${WORK_DIR}/pkg-host/host)
message(STATUS "Hosts built against the installed package: ${last_output}")

# 3. A C program using nothing but the C header and the installed libraries,
#    the header compiled as strict C.
if(WITH_SIMULATOR)
  run(${CC} -std=c11 -Wall -Wextra -pedantic -Werror ${extra} ${HOST_SOURCE}/c_host.c -o ${WORK_DIR}/pkg-host/c_host
      -I${PREFIX}/include ${flags} -lelatectwn4-sim ${rpaths})
  run(${WORK_DIR}/pkg-host/c_host)
  message(STATUS "${last_output}")
endif()
