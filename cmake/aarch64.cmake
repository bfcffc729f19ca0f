# SPDX-License-Identifier: Apache-2.0
# Toolchain file of the preset aarch64: Debian's cross compiler, the sysroot that
# scripts/aarch64-sysroot.sh makes, and the emulator that runs what was built.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(scripts "${CMAKE_CURRENT_LIST_DIR}/../scripts")

foreach(program aarch64-linux-gnu-gcc aarch64-linux-gnu-g++ qemu-aarch64)
    find_program(KORVANE_${program} ${program})
    if(NOT KORVANE_${program})
        message(FATAL_ERROR " ${program} is missing; install it with: "
                            "scripts/install-deps.sh aarch64")
    endif()
endforeach()
set(CMAKE_C_COMPILER "${KORVANE_aarch64-linux-gnu-gcc}")
set(CMAKE_CXX_COMPILER "${KORVANE_aarch64-linux-gnu-g++}")
set(CMAKE_CROSSCOMPILING_EMULATOR "${scripts}/aarch64-run.sh")

get_filename_component(CMAKE_SYSROOT "${scripts}/../.cache/aarch64-sysroot" ABSOLUTE)
if(NOT EXISTS "${CMAKE_SYSROOT}")
    message(FATAL_ERROR " The AArch64 sysroot is missing; make it with: scripts/aarch64-sysroot.sh")
endif()
# The linker looks for what our libraries need below the sysroot only, run path or not.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${CMAKE_BINARY_DIR}/lib")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
