cmake_minimum_required(VERSION 3.20)
# Puts the build into a scratch root, then builds and runs a C consumer once
# through pkg-config and once through find_package(qosa).
#  MODE install: cmake --install into a scratch prefix.
#  MODE package: cpack's Debian packages, unpacked with dpkg -x.
# LIBDIR is the library directory under the prefix. A cross build passes its
# C compiler (CC), its emulator (EMULATOR, words joined by "|") and its
# tool-chain file (TOOLCHAIN).
if(NOT CC)
  set(CC cc)
endif()
string(REPLACE "|" ";" EMULATOR "${EMULATOR}")
file(REMOVE_RECURSE ${WORK})
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "${out}")
endfunction()
function(expect what got want)
  if(NOT got MATCHES "${want}")
    message(FATAL_ERROR "${what}: \"${got}\" does not match \"${want}\"")
  endif()
endfunction()

if(MODE STREQUAL "package")
  run(${CPACK} -G DEB --config ${BUILD_DIR}/CPackConfig.cmake -B ${WORK}/debs)
  file(GLOB runtime ${WORK}/debs/libqosa1_*.deb)
  file(GLOB dev ${WORK}/debs/libqosa-dev_*.deb)
  if(NOT runtime OR NOT dev)
    message(FATAL_ERROR "cpack made no libqosa1 and libqosa-dev packages")
  endif()
  # The runtime package holds the soname and the library, nothing else of ours;
  # the dev package holds the rest and needs exactly this runtime.
  set(lib "\\./usr/${LIBDIR}/libqosa")
  execute_process(COMMAND dpkg-deb -c ${runtime} OUTPUT_VARIABLE files)
  string(REGEX MATCHALL "\\./[^\n]*[^/\n]\n" entries "${files}") # all but directories
  expect("runtime files" "${entries}" "^${lib}\\.so\\.1 -> libqosa\\.so\\.1\\.[0-9.]+\n;${lib}\\.so\\.1\\.[0-9.]+\n$")
  execute_process(COMMAND dpkg-deb -c ${dev} OUTPUT_VARIABLE files)
  expect("dev files" "${files}" "${lib}\\.so -> libqosa\\.so\\.1\n")
  foreach(file include/qosa/qosa\\.h ${LIBDIR}/libqosa\\.a ${LIBDIR}/pkgconfig/qosa\\.pc ${LIBDIR}/cmake/qosa/qosaConfig\\.cmake)
    expect("dev files" "${files}" "\\./usr/${file}\n")
  endforeach()
  if(files MATCHES "${lib}\\.so\\.1")
    message(FATAL_ERROR "the dev package holds the shared library")
  endif()
  execute_process(COMMAND dpkg-deb -f ${dev} Depends OUTPUT_VARIABLE deps)
  expect("dev Depends" "${deps}" "^libqosa1 \\(= [0-9.]+\\)\n$")
  execute_process(COMMAND dpkg-deb -f ${runtime} Depends OUTPUT_VARIABLE deps)
  expect("runtime Depends" "${deps}" "libc6 \\(>= [0-9.]+\\)")
  run(dpkg -x ${runtime} ${WORK}/root)
  run(dpkg -x ${dev} ${WORK}/root)
  set(prefix ${WORK}/root/usr)
else()
  set(prefix ${WORK}/prefix)
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
endif()

# pkg-config
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs qosa OUTPUT_VARIABLE flags RESULT_VARIABLE rc
  OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know qosa")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CC} -std=c11 -Wall -Werror ${SRC}/consumer.c ${flags} -o ${WORK}/consumer_pc)
set(ENV{LD_LIBRARY_PATH} ${prefix}/${LIBDIR})
run(${EMULATOR} ${WORK}/consumer_pc)

# find_package (a cross build also searches the scratch root for packages)
set(cross "")
if(TOOLCHAIN)
  set(cross -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_FIND_ROOT_PATH=${prefix})
endif()
run(${CMAKE_COMMAND} -S ${SRC} -B ${WORK}/build -DCMAKE_PREFIX_PATH=${prefix} ${cross})
run(${CMAKE_COMMAND} --build ${WORK}/build)
run(${EMULATOR} ${WORK}/build/consumer)
