# SPDX-License-Identifier: Apache-2.0
# Shared part of the ARM toolchain files: Debian's cross compiler for
# TAVREN_CROSS_TRIPLET, the target's libraries from the sysroot folder that
# scripts/cross-sysroot.sh prepares, and qemu-user-static to run the tests.
# Set by the including file: TAVREN_CROSS_TRIPLET, TAVREN_CROSS_ARCH,
# TAVREN_CROSS_QEMU and CMAKE_SYSTEM_PROCESSOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${TAVREN_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TAVREN_CROSS_TRIPLET}-g++)

# The sysroot: -DTAVREN_CROSS_SYSROOT=..., else the environment's
# TAVREN_CROSS_SYSROOT, else where scripts/cross-sysroot.sh puts it.
if(NOT TAVREN_CROSS_SYSROOT)
  if(DEFINED ENV{TAVREN_CROSS_SYSROOT})
    set(TAVREN_CROSS_SYSROOT "$ENV{TAVREN_CROSS_SYSROOT}")
  elseif(DEFINED ENV{TAVREN_CROSS_DIR})
    set(TAVREN_CROSS_SYSROOT "$ENV{TAVREN_CROSS_DIR}/${TAVREN_CROSS_ARCH}/sysroot")
  else()
    set(TAVREN_CROSS_SYSROOT "/var/tmp/tavren-cross/${TAVREN_CROSS_ARCH}/sysroot")
  endif()
endif()
set(TAVREN_CROSS_SYSROOT "${TAVREN_CROSS_SYSROOT}" CACHE PATH "Folder with the target's libraries (scripts/cross-sysroot.sh)")
# try_compile projects read this file again and need the same folder.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TAVREN_CROSS_SYSROOT)
if(NOT EXISTS "${TAVREN_CROSS_SYSROOT}/usr/lib/${TAVREN_CROSS_TRIPLET}/pkgconfig/apr-1.pc")
  message(FATAL_ERROR "No ${TAVREN_CROSS_ARCH} sysroot in ${TAVREN_CROSS_SYSROOT}: run scripts/cross-sysroot.sh ${TAVREN_CROSS_ARCH}")
endif()

# The C library and libstdc++ come from the cross compiler's own folder
# (/usr/TRIPLET); everything else is looked up in the sysroot only.
set(CMAKE_FIND_ROOT_PATH "${TAVREN_CROSS_SYSROOT}" "/usr/${TAVREN_CROSS_TRIPLET}")
# Debian keeps the target's own headers of a library (OpenSSL's
# opensslconf.h and configuration.h) in a folder named after the triplet,
# which the cross compiler does not search in a sysroot of this kind.
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES "${TAVREN_CROSS_SYSROOT}/usr/include/${TAVREN_CROSS_TRIPLET}")
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${TAVREN_CROSS_SYSROOT}/usr/include/${TAVREN_CROSS_TRIPLET}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the target's .pc files and prefixes their paths with the sysroot.
set(ENV{PKG_CONFIG_LIBDIR} "${TAVREN_CROSS_SYSROOT}/usr/lib/${TAVREN_CROSS_TRIPLET}/pkgconfig:${TAVREN_CROSS_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TAVREN_CROSS_SYSROOT}")

# libapr needs libcrypt, which is in the sysroot only: the linker must find it
# when it links an executable against libtavren.
set(_tavren_cross_libdirs "${TAVREN_CROSS_SYSROOT}/usr/lib/${TAVREN_CROSS_TRIPLET}:${TAVREN_CROSS_SYSROOT}/lib/${TAVREN_CROSS_TRIPLET}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_tavren_cross_libdirs}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_tavren_cross_libdirs}")

# Tests run under qemu: the target's loader and C library from /usr/TRIPLET,
# its other libraries from the sysroot.
find_program(TAVREN_CROSS_QEMU_PROGRAM ${TAVREN_CROSS_QEMU})
if(TAVREN_CROSS_QEMU_PROGRAM)
  set(CMAKE_CROSSCOMPILING_EMULATOR
      "${TAVREN_CROSS_QEMU_PROGRAM}" -L "/usr/${TAVREN_CROSS_TRIPLET}"
      -E "LD_LIBRARY_PATH=${_tavren_cross_libdirs}"
      -E "TAVREN_UNDER_EMULATION=1")
endif()
