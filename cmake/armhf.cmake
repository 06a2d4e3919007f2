# 32-bit ARM against a root with Debian's packages (scripts/fetch-armhf-sysroot), which EVENT_SERVICE_SYSROOT names; what
# was built runs under the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# The notes are about an interface of compilers before gcc 7.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

if(NOT EVENT_SERVICE_SYSROOT)
  set(EVENT_SERVICE_SYSROOT $ENV{EVENT_SERVICE_SYSROOT})
endif()
if(NOT IS_DIRECTORY "${EVENT_SERVICE_SYSROOT}")
  message(FATAL_ERROR "EVENT_SERVICE_SYSROOT has to name the folder that scripts/fetch-armhf-sysroot prints.")
endif()
set(EVENT_SERVICE_SYSROOT ${EVENT_SERVICE_SYSROOT} CACHE PATH "Root with the target's packages")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES EVENT_SERVICE_SYSROOT)

set(CMAKE_SYSROOT ${EVENT_SERVICE_SYSROOT})
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

find_program(QEMU_ARM qemu-arm)
if(QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QEMU_ARM} -L ${CMAKE_SYSROOT})
endif()
