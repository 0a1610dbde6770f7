# Cross build for 64-bit Arm Linux with Debian's aarch64-linux-gnu compilers.
#
# libc and libstdc++ are the cross toolchain's own (/usr/aarch64-linux-gnu);
# hiredis, jsoncpp, ACE, GoogleTest, libcurl and pugixml are found in
# VEL_ARM64_SYSROOT, a folder holding Debian's arm64 packages unpacked
# (scripts/arm64-sysroot.sh), by default <build dir>/sysroot. Programs built
# here run under qemu-aarch64, which is what CTest, test discovery and the
# tests' child processes use; the emulator is given the sysroot's library
# folders (below), so no library path has to be set by hand.
#
#   scripts/arm64-sysroot.sh build-arm64/sysroot
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# try_compile projects get the sysroot from the top-level configure.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEL_ARM64_SYSROOT VEL_ARM64_LIBC_ROOT)
if(NOT VEL_ARM64_SYSROOT)
  set(VEL_ARM64_SYSROOT "${CMAKE_BINARY_DIR}/sysroot" CACHE PATH
      "Folder with Debian's arm64 packages of the dependencies unpacked")
endif()
if(NOT VEL_ARM64_LIBC_ROOT)
  set(VEL_ARM64_LIBC_ROOT /usr/aarch64-linux-gnu CACHE PATH
      "Root of the cross toolchain's arm64 libc (holds lib/ld-linux-aarch64.so.1)")
endif()

set(CMAKE_FIND_ROOT_PATH "${VEL_ARM64_SYSROOT}" "${VEL_ARM64_LIBC_ROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(VEL_QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static)
if(NOT VEL_QEMU_AARCH64)
  message(FATAL_ERROR "qemu-aarch64 not found; run scripts/deps.sh --arm")
endif()
# -L: where qemu finds the dynamic loader and libc of the emulated programs;
# GCONV_PATH (set for the emulated program only): iconv's character-set
# modules, which the cross toolchain's libc lacks and the sysroot holds.
# The libraries that libraries of the sysroot need in turn (libcurl's TLS,
# HTTP/2, ... libraries): the linker looks for them there, and the emulated
# programs find them there through LD_LIBRARY_PATH, since a run path only
# serves an executable's own libraries.
set(VEL_ARM64_LIBRARY_PATH
    "${VEL_ARM64_SYSROOT}/usr/lib/aarch64-linux-gnu:${VEL_ARM64_SYSROOT}/lib/aarch64-linux-gnu")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${VEL_ARM64_LIBRARY_PATH}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${VEL_ARM64_LIBRARY_PATH}")
set(CMAKE_CROSSCOMPILING_EMULATOR
    "${VEL_QEMU_AARCH64};-L;${VEL_ARM64_LIBC_ROOT};-E;GCONV_PATH=${VEL_ARM64_SYSROOT}/usr/lib/aarch64-linux-gnu/gconv;-E;LD_LIBRARY_PATH=${VEL_ARM64_LIBRARY_PATH}")
