# Cross build for the target: 32-bit big-endian PowerPC Linux (Debian's powerpc-linux-gnu
# cross compiler). Programs built with it, the tests included, run on the build machine
# under qemu-user, so ctest and gtest_discover_tests work as on a native build.
#
#   cmake -S . -B build-ppc -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-powerpc-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)

set(KESDB_CROSS_TRIPLE powerpc-linux-gnu)
set(CMAKE_C_COMPILER ${KESDB_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KESDB_CROSS_TRIPLE}-g++)

# The target's system root as Debian's cross packages lay it down.
set(KESDB_CROSS_SYSROOT /usr/${KESDB_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH ${KESDB_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Target programs run under the user-mode emulator with the target's loader and libraries.
find_program(KESDB_QEMU qemu-ppc REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${KESDB_QEMU} -L ${KESDB_CROSS_SYSROOT})

# Header-only libraries of the build machine that the target build may use: only their own
# folders, never the whole of /usr/include.
set(KESDB_NLOHMANN_DIR /usr/include/nlohmann CACHE PATH "")
set(KESDB_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "")
