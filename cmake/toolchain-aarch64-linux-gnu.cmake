# Cross build for 64-bit Arm Linux with Debian's cross compiler and its multiarch arm64 libraries
# (dpkg --add-architecture arm64). Programs built here run on the build machine under qemu-user:
# CTest, gtest_discover_tests and add_test go through CMAKE_CROSSCOMPILING_EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Libraries, headers and CMake packages come from the cross compiler's runtime
# (/usr/aarch64-linux-gnu) and the arm64 multiarch folders (/usr/lib/aarch64-linux-gnu, picked by
# CMAKE_LIBRARY_ARCHITECTURE under the root /); programs are the build machine's.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)

# Programs run on the arm64 multiarch runtime (libc6:arm64, libstdc++6:arm64), as on an arm64
# Debian machine: its loader /lib/ld-linux-aarch64.so.1 and the libraries it finds through
# /etc/ld.so.cache all come from one glibc build. The cross compiler's runtime in
# /usr/aarch64-linux-gnu is an older build of the same glibc; a prefix of -L /usr/aarch64-linux-gnu
# would take its loader but still the newer libc.so.6 from that cache, and the two disagree on
# private data (the first pthread_create spins forever).
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /)
