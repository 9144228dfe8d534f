cmake_minimum_required(VERSION 3.20)
# Installs the build into a scratch prefix, then builds and runs a C consumer
# once through pkg-config and once through find_package(qosa).
file(REMOVE_RECURSE ${WORK})
set(prefix ${WORK}/prefix)
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "${out}")
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# pkg-config
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig:${prefix}/lib64/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs qosa OUTPUT_VARIABLE flags RESULT_VARIABLE rc
  OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know qosa")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(cc -std=c11 -Wall -Werror ${SRC}/consumer.c ${flags} -o ${WORK}/consumer_pc)
set(ENV{LD_LIBRARY_PATH} ${prefix}/lib:${prefix}/lib64)
run(${WORK}/consumer_pc)

# find_package
run(${CMAKE_COMMAND} -S ${SRC} -B ${WORK}/build -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK}/build)
run(${WORK}/build/consumer)
