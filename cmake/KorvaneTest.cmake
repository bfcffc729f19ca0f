# SPDX-License-Identifier: Apache-2.0
# korvane_test(NAME name SOURCES file... [LIBRARIES target...])
#
# A GoogleTest executable around the unmodified renderer library on the simulated TV. ctest runs it
# as one test, so that its cases share one process start; a hang is cut off by the time-out.
# korvane::tv stands first: its trace and log calls go before those of Debian's libraries.
#
# KORVANE_GTEST_SOURCE  where GoogleTest's sources lie, for a build that the system's library of it
#                       does not fit; empty: that library.
include(GoogleTest)
set(KORVANE_GTEST_SOURCE "" CACHE PATH "Sources to build GoogleTest from, instead of the library")
if(KORVANE_GTEST_SOURCE)
    if(NOT EXISTS "${KORVANE_GTEST_SOURCE}/CMakeLists.txt")
        message(FATAL_ERROR " GoogleTest's sources are not in ${KORVANE_GTEST_SOURCE}; "
                            "install them with: scripts/install-deps.sh libcxx")
    endif()
    set(INSTALL_GTEST OFF)
    add_subdirectory("${KORVANE_GTEST_SOURCE}" "${CMAKE_BINARY_DIR}/googletest"
                     EXCLUDE_FROM_ALL SYSTEM)
else()
    find_package(GTest REQUIRED)
endif()

# Far above what a test takes, on a busy machine or under an emulator.
set(KORVANE_TEST_TIMEOUT_SECONDS 300)
if(CMAKE_CROSSCOMPILING)
    set(KORVANE_TEST_TIMEOUT_SECONDS 1800)
endif()

# korvane_test_environment(test...)
#
# A sanitizer's run-time stands between the library and dlopen, so that the library's own run path no
# longer counts when it opens the device libraries by name; the environment tells where they are.
function(korvane_test_environment)
    if(KORVANE_SANITIZE)
        set_tests_properties(${ARGN} PROPERTIES
            ENVIRONMENT "LD_LIBRARY_PATH=${CMAKE_BINARY_DIR}/lib")
    endif()
endfunction()

# korvane_launcher(variable target)
#
# Sets the variable to the path by which tests and scripts start the program: its own, or, where an
# emulator must run it, that of a script which does.
function(korvane_launcher variable target)
    set(path "$<TARGET_FILE:${target}>")
    if(CMAKE_CROSSCOMPILING)
        set(launcher "${CMAKE_BINARY_DIR}/launchers/${target}")
        file(GENERATE OUTPUT "${launcher}"
             CONTENT "#!/bin/sh\nexec '${CMAKE_CROSSCOMPILING_EMULATOR}' '${path}' \"$@\"\n"
             FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                              WORLD_READ WORLD_EXECUTE)
        set(path "${launcher}")
    endif()
    set(${variable} "${path}" PARENT_SCOPE)
endfunction()

function(korvane_test)
    cmake_parse_arguments(ARG "" "NAME" "SOURCES;LIBRARIES" ${ARGN})
    add_executable(${ARG_NAME} ${ARG_SOURCES})
    target_link_libraries(${ARG_NAME} PRIVATE korvane::tv korvane::test_support ${ARG_LIBRARIES}
                                              korvane::tunnelrenderer korvane::options
                                              GTest::gmock GTest::gtest_main)
    target_precompile_headers(${ARG_NAME} REUSE_FROM korvane_test_support)
    # The tests' own clock stands in for the platform's in the libraries under test.
    set_target_properties(${ARG_NAME} PROPERTIES ENABLE_EXPORTS ON)
    add_test(NAME ${ARG_NAME} COMMAND ${ARG_NAME})
    set_tests_properties(${ARG_NAME} PROPERTIES TIMEOUT ${KORVANE_TEST_TIMEOUT_SECONDS})
    korvane_test_environment(${ARG_NAME})
endfunction()
