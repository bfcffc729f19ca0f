# SPDX-License-Identifier: Apache-2.0
# korvane_explored(target)
#
# Compiles a target with the compiler's thread instrumentation and links it against tv/explore, which
# makes each access a point of preemption and checks it, instead of the sanitizer's own runtime.
# Allocations, block operations and the guards of static variables are redirected there by the linker.
set(explored_calls malloc calloc free memcpy memmove memset _Znwm _Znam _ZnwmRKSt9nothrow_t
                   _ZnamRKSt9nothrow_t _ZnwmSt11align_val_t __cxa_guard_acquire
                   __cxa_guard_release)
list(TRANSFORM explored_calls PREPEND "-Wl,--wrap=")

function(korvane_explored target)
    # Optimised, so that accesses through the C++ library's templates are ones of the function that
    # uses them, but without jumps to other functions at the end of one: the runtime knows an
    # instrumented library by where __tsan_init returns to. gcc warns of fences.
    target_compile_options(${target} PRIVATE -fsanitize=thread -O2 -g -fno-optimize-sibling-calls
                                             $<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
    target_link_options(${target} PRIVATE ${explored_calls})
    target_link_libraries(${target} PRIVATE korvane::tv)
endfunction()

# korvane_explored_library(target SOURCES file... INCLUDES folder...)
#
# The renderer library once more, so compiled, under its own file name in lib/<target>.
function(korvane_explored_library target)
    cmake_parse_arguments(ARG "" "" "SOURCES;INCLUDES" ${ARGN})
    add_library(${target} SHARED EXCLUDE_FROM_ALL ${ARG_SOURCES})
    target_include_directories(${target} BEFORE PRIVATE ${ARG_INCLUDES})
    target_include_directories(${target} PRIVATE "${PROJECT_SOURCE_DIR}/include")
    target_link_libraries(${target} PRIVATE korvane::platform korvane::library device::mediasync)
    korvane_explored(${target})
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME korvane_tunnelrenderer
        UNITY_BUILD OFF
        LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib/${target}")
endfunction()

# korvane_library_sources(variable)
#
# The renderer library's source files.
function(korvane_library_sources variable)
    foreach(part korvane_tunnelrenderer korvane_mediasync_client korvane_videotunnel_client
                 korvane_display_client korvane_frac)
        get_target_property(sources ${part} SOURCES)
        get_target_property(folder ${part} SOURCE_DIR)
        list(FILTER sources INCLUDE REGEX "^[A-Za-z]+\\.cpp$")
        list(TRANSFORM sources PREPEND "${folder}/")
        list(APPEND all ${sources})
    endforeach()
    set(${variable} ${all} PARENT_SCOPE)
endfunction()
