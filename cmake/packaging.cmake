# Debian packages from the install components: libqosa1 (runtime: the shared
# library under its soname) and libqosa-dev (dev: everything to build
# against it). `cpack -G DEB` in a build tree makes both.
set(QOSA_PACKAGE_CONTACT "libqosa maintainers <maintainers@libqosa.invalid>"
  CACHE STRING "Maintainer field of the Debian packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libqosa)
set(CPACK_PACKAGE_VENDOR libqosa)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${QOSA_PACKAGE_CONTACT})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON) # the shared library; static archives are never stripped
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT) # <package>_<version>_<architecture>.deb
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
if(CMAKE_CROSSCOMPILING)
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  else()
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${CMAKE_SYSTEM_PROCESSOR})
  endif()
endif()

get_target_property(_qosa_soversion qosa SOVERSION)
set(QOSA_SONAME_PACKAGE libqosa${_qosa_soversion}) # libqosa.so.1: libqosa1
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${QOSA_SONAME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(QOSA_PACKAGE_ABOUT "libqosa gives SDK code one flat C interface to threads, locks, semaphores,
message queues, timers, tracked memory, files, sockets, text conversions and
system statistics on Linux.")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Linux operating-system adapter library
${QOSA_PACKAGE_ABOUT}

This package holds the shared library.")
# A shlibs file for the soname (packages built against it depend on
# libqosa1 (>= this version)) and ldconfig runs on install and removal.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
if(NOT CMAKE_CROSSCOMPILING)
  # Dependencies from the library's needed sonames and symbol versions.
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
else()
  # dpkg-shlibdeps would find the cross tool chain's copies of the target
  # libraries, owned by differently named packages: stated instead, as the
  # native build's dpkg-shlibdeps gives them (the newest symbol versions used
  # are GLIBC_2.34, GCC_3.0 and CXXABI_1.3).
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 4.1.1)")
endif()

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libqosa-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${QOSA_SONAME_PACKAGE} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Linux operating-system adapter library (development files)
${QOSA_PACKAGE_ABOUT}

This package holds the C headers, the static archive, the link to the shared
library, and the pkg-config and CMake package files.")

include(CPack)
