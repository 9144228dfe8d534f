# Cross build for 64-bit ARM Linux with Debian's aarch64-linux-gnu tool chain
# (g++-aarch64-linux-gnu, libc6-dev-arm64-cross). Test programs run under
# qemu-user with the target's C library as its root for loader and libraries.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(QOSA_TARGET_TRIPLE aarch64-linux-gnu)
set(QOSA_TARGET_ROOT /usr/${QOSA_TARGET_TRIPLE})

set(CMAKE_C_COMPILER ${QOSA_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${QOSA_TARGET_TRIPLE}-g++)

list(APPEND CMAKE_FIND_ROOT_PATH ${QOSA_TARGET_ROOT}) # after any given with -D
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# ctest and gtest_discover_tests start every target program through this.
find_program(QOSA_QEMU qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${QOSA_QEMU} -L ${QOSA_TARGET_ROOT})
