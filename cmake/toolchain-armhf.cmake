# Cross compiling for 32-bit ARM Linux (arm-linux-gnueabihf) with Debian's cross compiler.
#
# Third-party libraries (cJSON, OpenSSL's libcrypto) come from an armhf sysroot made by
# scripts/install-deps.sh; the C/C++ runtime comes from /usr/arm-linux-gnueabihf (the cross
# toolchain's own libraries). Test executables run under qemu-arm.
#
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# The sysroot location: -DVEXO_ARMHF_SYSROOT=..., else $ENV{VEXO_ARMHF_SYSROOT}, else
# /opt/vexo-armhf-sysroot.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Everything is compiled by one gcc (>= 7.1): its notes about the ARM parameter-passing
# change of gcc 7.1 do not apply and would bury the real diagnostics.
set(CMAKE_C_FLAGS_INIT "-Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

if(NOT VEXO_ARMHF_SYSROOT)
    if(DEFINED ENV{VEXO_ARMHF_SYSROOT} AND NOT "$ENV{VEXO_ARMHF_SYSROOT}" STREQUAL "")
        set(VEXO_ARMHF_SYSROOT "$ENV{VEXO_ARMHF_SYSROOT}")
    else()
        set(VEXO_ARMHF_SYSROOT /opt/vexo-armhf-sysroot)
    endif()
endif()
if(NOT EXISTS "${VEXO_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
    message(FATAL_ERROR "armhf sysroot not found in ${VEXO_ARMHF_SYSROOT}; run scripts/install-deps.sh")
endif()
# try_compile projects read this file again: hand the sysroot location down to them.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEXO_ARMHF_SYSROOT)

set(VEXO_ARMHF_TOOLCHAIN_ROOT /usr/arm-linux-gnueabihf)
set(VEXO_ARMHF_SYSROOT_LIBDIR "${VEXO_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")

# Headers and libraries only from the sysroot and the cross toolchain, never from the host;
# programs (code generators, tools) only from the host.
set(CMAKE_FIND_ROOT_PATH "${VEXO_ARMHF_SYSROOT}" "${VEXO_ARMHF_TOOLCHAIN_ROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config (FindOpenSSL asks it for hints) describes the sysroot, not the host.
set(ENV{PKG_CONFIG_LIBDIR} "${VEXO_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${VEXO_ARMHF_SYSROOT}")
unset(ENV{PKG_CONFIG_PATH})

# Shared libraries of the sysroot (libcrypto's and libcjson's dependencies) at link time.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${VEXO_ARMHF_SYSROOT_LIBDIR}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${VEXO_ARMHF_SYSROOT_LIBDIR}")

# Running target programs (ctest, gtest_discover_tests): qemu-arm with the cross toolchain's
# loader (-L), and a library path that puts the sysroot's libraries and then the cross
# toolchain's C/C++ runtime first. Without the latter, the loader could pick the host's
# multiarch armhf libc (if libc6:armhf is installed) next to the toolchain's ld.so: a
# mismatched pair that crashes.
find_program(VEXO_QEMU_ARM qemu-arm)
if(NOT VEXO_QEMU_ARM)
    message(FATAL_ERROR "qemu-arm not found; run scripts/install-deps.sh")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR
    "${VEXO_QEMU_ARM};-L;${VEXO_ARMHF_TOOLCHAIN_ROOT};-E;LD_LIBRARY_PATH=${VEXO_ARMHF_SYSROOT_LIBDIR}:${VEXO_ARMHF_TOOLCHAIN_ROOT}/lib")
