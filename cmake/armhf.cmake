# 32-bit ARM with a vector unit, over the sysroot that tools/arm makes. What is built runs under
# qemu, as a processor with no more than it is built for.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot)
file(REAL_PATH ${CMAKE_SYSROOT} CMAKE_SYSROOT)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard -Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT ${CMAKE_C_FLAGS_INIT})

set(CMAKE_FIND_ROOT_PATH ${CMAKE_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})

# By the sysroot's own program loader: with qemu's -L, "/" would be the sysroot's root folder.
set(libraries ${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf)
string(PREPEND libraries ${CMAKE_SYSROOT}/lib/arm-linux-gnueabihf: ${libraries}/pulseaudio:)
set(CMAKE_CROSSCOMPILING_EMULATOR
    /usr/bin/qemu-arm -cpu cortex-a9 ${CMAKE_SYSROOT}/lib/ld-linux-armhf.so.3
    --library-path ${libraries}:/usr/arm-linux-gnueabihf/lib)
