cmake_minimum_required(VERSION 3.20)
# Puts the build into a scratch root (MODE install: cmake --install; MODE package: cpack's Debian packages,
# unpacked with dpkg -x), then builds and runs c_abi.c against it through pkg-config and through
# find_package(qosa). LIBDIR is the library directory under the prefix; CC the C compiler. A cross build passes its
# emulator (EMULATOR, words joined by "|") and its tool-chain file (TOOLCHAIN).
string(REPLACE "|" ";" EMULATOR "${EMULATOR}")
file(REMOVE_RECURSE ${WORK})
# Runs a command that must succeed; its standard output is left in `out`.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "${out}")
  set(out "${out}" PARENT_SCOPE)
endfunction()
function(expect what got want)
  if(NOT got MATCHES "${want}")
    message(FATAL_ERROR "${what}: \"${got}\" does not match \"${want}\"")
  endif()
endfunction()

set(prefix ${WORK}/prefix)
if(MODE STREQUAL "package")
  run(${CPACK} -G DEB --config ${BUILD_DIR}/CPackConfig.cmake -B ${WORK}/debs)
  file(GLOB runtime ${WORK}/debs/libqosa1_*.deb)
  file(GLOB dev ${WORK}/debs/libqosa-dev_*.deb)
  # The runtime package holds the soname and the library, nothing else of ours;
  # the dev package holds the rest and needs exactly this runtime.
  set(lib "\\./usr/${LIBDIR}/libqosa")
  run(dpkg-deb -c ${runtime})
  string(REGEX MATCHALL "\\./[^\n]*[^/\n]\n" entries "${out}") # all but directories
  expect("runtime files" "${entries}" "^${lib}\\.so\\.1 -> libqosa\\.so\\.1\\.[0-9.]+\n;${lib}\\.so\\.1\\.[0-9.]+\n$")
  run(dpkg-deb -c ${dev})
  foreach(file "${LIBDIR}/libqosa\\.so -> libqosa\\.so\\.1" include/qosa/qosa\\.h ${LIBDIR}/libqosa\\.a
          ${LIBDIR}/pkgconfig/qosa\\.pc ${LIBDIR}/cmake/qosa/qosaConfig\\.cmake)
    expect("dev files" "${out}" "\\./usr/${file}\n")
  endforeach()
  if(out MATCHES "${lib}\\.so\\.1")
    message(FATAL_ERROR "the dev package holds the shared library")
  endif()
  run(dpkg-deb -f ${dev} Depends)
  expect("dev Depends" "${out}" "^libqosa1 \\(= [0-9.]+\\)\n$")
  run(dpkg-deb -f ${runtime} Depends)
  expect("runtime Depends" "${out}" "libc6 \\(>= [0-9.]+\\)")
  set(prefix ${WORK}/root/usr)
  run(dpkg -x ${runtime} ${WORK}/root)
  run(dpkg -x ${dev} ${WORK}/root)
else()
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
endif()

set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
run(pkg-config --cflags --libs qosa)
separate_arguments(flags UNIX_COMMAND "${out}")
run(${CC} -std=c11 -Wall -Werror ${SRC}/../c_abi.c ${flags} -o ${WORK}/consumer_pc)
set(ENV{LD_LIBRARY_PATH} ${prefix}/${LIBDIR})
run(${EMULATOR} ${WORK}/consumer_pc)

if(TOOLCHAIN) # a cross build also searches the scratch root for packages
  set(cross -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_FIND_ROOT_PATH=${prefix})
endif()
run(${CMAKE_COMMAND} -S ${SRC} -B ${WORK}/build -DCMAKE_PREFIX_PATH=${prefix} ${cross})
run(${CMAKE_COMMAND} --build ${WORK}/build)
run(${EMULATOR} ${WORK}/build/consumer)
