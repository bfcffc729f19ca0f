# SPDX-License-Identifier: Apache-2.0
# korvane_test(NAME name SOURCES file... [LIBRARIES target...])
#
# A GoogleTest executable around the unmodified renderer library on the simulated TV. ctest runs it
# as one test, so that its cases share one process start; a hang is cut off by the time-out.
# korvane::tv stands first: its trace and log calls go before those of Debian's libraries.
include(GoogleTest)
find_package(GTest REQUIRED)

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

function(korvane_test)
    cmake_parse_arguments(ARG "" "NAME" "SOURCES;LIBRARIES" ${ARGN})
    add_executable(${ARG_NAME} ${ARG_SOURCES})
    target_link_libraries(${ARG_NAME} PRIVATE korvane::tv korvane::test_support ${ARG_LIBRARIES}
                                              korvane::tunnelrenderer korvane::options
                                              GTest::gmock GTest::gtest_main)
    # The tests' own clock stands in for the platform's in the libraries under test.
    set_target_properties(${ARG_NAME} PROPERTIES ENABLE_EXPORTS ON)
    add_test(NAME ${ARG_NAME} COMMAND ${ARG_NAME})
    set_tests_properties(${ARG_NAME} PROPERTIES TIMEOUT 300)
    korvane_test_environment(${ARG_NAME})
endfunction()
