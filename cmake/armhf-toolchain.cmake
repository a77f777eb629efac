# SPDX-License-Identifier: MIT
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# The root is "/", not /usr/arm-linux-gnueabihf: Debian's armhf packages put their libraries in
# /usr/lib/arm-linux-gnueabihf, and mixing the two C libraries crashes.
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm;-L;/")
set(PKG_CONFIG_EXECUTABLE /usr/bin/pkg-config)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
