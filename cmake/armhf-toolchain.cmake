# Cross-build for 32-bit ARM (armhf) with Debian's cross toolchain
# (crossbuild-essential-armhf) and the armhf builds of the libraries through
# multiarch (libwpa-client-dev:armhf, libgtest-dev:armhf).
#
#   cmake -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake
#
# SimpleIni is used from its header alone, which is the same on every
# architecture, so the native libsimpleini-dev serves (its armhf package
# would pull in ICU's armhf development files for nothing).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# Libraries and CMake packages only from the armhf side of multiarch and the
# cross toolchain's own tree; headers and programs from the host.
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf /usr/lib/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
