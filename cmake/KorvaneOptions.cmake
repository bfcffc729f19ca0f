# SPDX-License-Identifier: Apache-2.0
# Compiler settings that every target of ours shares.
#
# korvane::options   warnings, C++17 (older device trees build the library), sanitizers, and with the
#                    device's C++ library the check of the lock annotations.
# korvane::library   what the device library adds: no exceptions, no run-time type information,
#                    nothing exported unless a declaration says so, types in its debug information,
#                    calls of other libraries without a jump through the procedure linkage table.

set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
# Another compiler knows other warnings, which must not stop those who only want to install.
option(KORVANE_WERROR "Treat warnings as errors; the presets do" OFF)
set(KORVANE_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address,undefined or thread")
option(KORVANE_LIBCXX "Build with clang and libc++, the device's C++ library, and check locks" OFF)
option(KORVANE_FUZZ "Build the fuzz targets with clang's libFuzzer, and all else counting coverage" OFF)

find_package(Threads REQUIRED)

add_library(korvane_options INTERFACE)
add_library(korvane::options ALIAS korvane_options)
target_compile_features(korvane_options INTERFACE cxx_std_17)
target_compile_options(korvane_options INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor
                                                 -Wformat=2 $<$<BOOL:${KORVANE_WERROR}>:-Werror>)
# The TV's times are rounded from real numbers. A fused multiply and add, which AArch64 has and
# x86-64 need not have, rounds once where two operations round twice: the same event, another time.
target_compile_options(korvane_options INTERFACE -ffp-contract=off)
target_link_libraries(korvane_options INTERFACE Threads::Threads)
if(KORVANE_SANITIZE)
    target_compile_options(korvane_options INTERFACE -fsanitize=${KORVANE_SANITIZE}
                           -fno-omit-frame-pointer -fno-sanitize-recover=all)
    # The library has no run-time type information, so the sanitizer's vptr check cannot apply.
    if(KORVANE_SANITIZE MATCHES undefined)
        target_compile_options(korvane_options INTERFACE -fno-sanitize=vptr)
    endif()
    if(KORVANE_SANITIZE MATCHES thread)
        # Android's LightRefBase orders its count with a stand-alone fence, which this sanitizer does
        # not follow. A Fence lives on one thread here, so nothing is lost by that.
        target_compile_options(korvane_options INTERFACE -Wno-tsan)
    endif()
    target_link_options(korvane_options INTERFACE -fsanitize=${KORVANE_SANITIZE})
    # The sanitizers' runtime calls dlopen in the library's place, so that the library's own run path
    # is not searched. What an executable carries as DT_RPATH is, whoever calls.
    target_link_options(korvane_options INTERFACE
        $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-Wl,--disable-new-dtags>)
endif()
if(KORVANE_FUZZ)
    # Without the depth of the stack: in virtual time each thread's lies somewhere else.
    target_compile_options(korvane_options INTERFACE -fsanitize=fuzzer-no-link
                                                     -fno-sanitize-coverage=stack-depth)
    # The counters' run-time is in the programs alone; shared libraries find it there.
    target_link_options(korvane_options INTERFACE -Wl,-z,undefs)
endif()
if(KORVANE_LIBCXX)
    include(CheckCXXSourceCompiles)
    set(CMAKE_REQUIRED_FLAGS -stdlib=libc++)
    check_cxx_source_compiles("#include <mutex>\nint main() {}" KORVANE_LIBCXX_WORKS)
    unset(CMAKE_REQUIRED_FLAGS)
    if(NOT KORVANE_LIBCXX_WORKS)
        unset(KORVANE_LIBCXX_WORKS CACHE)
        message(FATAL_ERROR " ${CMAKE_CXX_COMPILER} cannot build with libc++; "
                            "take clang and install it with: scripts/install-deps.sh libcxx")
    endif()
    # For all that is compiled here, GoogleTest included: the two C++ libraries' types do not mix.
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-stdlib=libc++>)
    add_link_options(-stdlib=libc++)
    # Locks as include/ThreadAnnotations.h says; -beta holds the order in which they are taken.
    # Warnings of folders, not of korvane::options, so that tests/ can leave the check out.
    add_compile_definitions(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS)
    add_compile_options(-Wthread-safety -Wthread-safety-beta)
    target_compile_options(korvane_options INTERFACE -Wextra-semi -Wimplicit-fallthrough
                           -Wloop-analysis -Wunreachable-code -Wunused-member-function)
endif()

add_library(korvane_library INTERFACE)
add_library(korvane::library ALIAS korvane_library)
target_link_libraries(korvane_library INTERFACE korvane::options)
# The presets build with -g1, lines only, which compiles a fifth faster. The description of the binary
# interface is read from the library's types.
target_compile_options(korvane_library INTERFACE $<$<CONFIG:RelWithDebInfo>:-g2>)
target_compile_options(korvane_library INTERFACE -fno-exceptions -fno-rtti -fvisibility=hidden
                                                 -fvisibility-inlines-hidden -fno-plt)
