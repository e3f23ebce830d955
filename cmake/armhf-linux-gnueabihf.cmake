# Cross build for the device: 32-bit ARM, hard-float (Debian's armhf, arm-linux-gnueabihf).
#
#   cmake -S . -B build/armhf --toolchain cmake/armhf-linux-gnueabihf.cmake -DTVC_SYSROOT=<sysroot>
#
# The sysroot holds the device's libraries and headers (PAM, libxcrypt, OpenSSL...) in Debian's
# multiarch layout; tools/armhf/make-sysroot.sh builds one from Debian's armhf packages.  A
# device build system (Buildroot, Yocto, a vendor SDK) passes its own staging directory and, if
# its compilers are named differently, TVC_CROSS_PREFIX.  Everything is read from the cache or
# the environment, because CMake loads this file again for each try_compile project.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

if(NOT TVC_SYSROOT AND DEFINED ENV{TVC_SYSROOT})
  set(TVC_SYSROOT "$ENV{TVC_SYSROOT}")
endif()
if(NOT TVC_SYSROOT)
  message(FATAL_ERROR "armhf toolchain: set TVC_SYSROOT (cache variable or environment) to the device's sysroot")
endif()
set(TVC_SYSROOT "${TVC_SYSROOT}" CACHE PATH "The device's sysroot (libraries and headers for armhf)")
if(NOT TVC_CROSS_PREFIX)
  set(TVC_CROSS_PREFIX arm-linux-gnueabihf-)
endif()
set(TVC_CROSS_PREFIX "${TVC_CROSS_PREFIX}" CACHE STRING "Prefix of the cross compilers' names")
# try_compile projects see these two as well.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TVC_SYSROOT TVC_CROSS_PREFIX)

set(CMAKE_C_COMPILER ${TVC_CROSS_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${TVC_CROSS_PREFIX}g++)
set(CMAKE_SYSROOT "${TVC_SYSROOT}")
# GCC notes every std::map or vector iterator passed by value that the argument passing for it
# changed in GCC 7.1: a concern for objects built by older compilers only, which a device
# build does not mix in.  Without this the notes bury the real diagnostics.
string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-psabi")
# Debian's multiarch directories inside the sysroot.
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# Libraries, headers and CMake packages only from the sysroot (and from the prefixes a build
# adds, e.g. a staged install); programs that run during the build from the host.
list(APPEND CMAKE_FIND_ROOT_PATH "${TVC_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the sysroot's .pc files only and prefixes the paths they give.  A build
# that stages packages of its own puts their .pc directories on PKG_CONFIG_PATH, which is
# searched first.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TVC_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${TVC_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${TVC_SYSROOT}/usr/lib/pkgconfig:${TVC_SYSROOT}/usr/share/pkgconfig")

# ctest (and anything using the emulator) runs the armhf programs under qemu's user-mode
# emulation, with the sysroot's loader and libraries.
find_program(TVC_QEMU_ARM NAMES qemu-arm-static qemu-arm)
if(TVC_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TVC_QEMU_ARM} -L ${TVC_SYSROOT})
endif()
