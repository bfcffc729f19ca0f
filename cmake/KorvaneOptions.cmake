# SPDX-License-Identifier: Apache-2.0
# Compiler settings that every target of ours shares.
#
# korvane::options   warnings as errors, C++17 (older device trees build the library), sanitizers.
# korvane::library   what the device library adds: no exceptions, no run-time type information,
#                    nothing exported unless a declaration says so.

set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(KORVANE_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address,undefined or thread")

find_package(Threads REQUIRED)

add_library(korvane_options INTERFACE)
add_library(korvane::options ALIAS korvane_options)
target_compile_features(korvane_options INTERFACE cxx_std_17)
target_compile_options(korvane_options INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor
                                                 -Wformat=2 -Werror)
target_link_libraries(korvane_options INTERFACE Threads::Threads)
if(KORVANE_SANITIZE)
    # The library has no run-time type information, so the sanitizer's vptr check cannot apply.
    target_compile_options(korvane_options INTERFACE -fsanitize=${KORVANE_SANITIZE}
                           -fno-omit-frame-pointer -fno-sanitize-recover=all)
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

add_library(korvane_library INTERFACE)
add_library(korvane::library ALIAS korvane_library)
target_link_libraries(korvane_library INTERFACE korvane::options)
target_compile_options(korvane_library INTERFACE -fno-exceptions -fno-rtti -fvisibility=hidden
                                                 -fvisibility-inlines-hidden)
