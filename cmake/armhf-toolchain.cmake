# Cross-build for the 32-bit ARMv7 devices (Debian armhf) on an x86-64 host:
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake
# Needs g++-arm-linux-gnueabihf and the :armhf -dev packages (multiarch, in
# /usr/lib/arm-linux-gnueabihf); ctest runs the programs under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
# Build tools come from the host; libraries, headers and CMake packages are
# looked up in the target's multiarch folders (CMake adds lib/arm-linux-gnueabihf
# to every prefix), never in the host's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
# ctest runs the programs as `qemu-arm PROGRAM`, which loads the armhf C
# library of the libc6:armhf package. Not with `-L /usr/arm-linux-gnueabihf`:
# with the cross toolchain's copy every program that starts a thread crashes.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
# GCC notes on ARM that passing some structures changed in GCC 7.1; nothing
# here links against code built before that.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
