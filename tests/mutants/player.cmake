# SPDX-License-Identifier: Apache-2.0
# Deliberately broken copies of the player, and the scenario that catches each.
#
# korvane_player_mutant(name SCENARIO file SAYS text...)
#
# Builds korvane-tv-testbench again as mutants/name with name.patch applied to one source file of
# player/: the file's object comes before the library of the others, so that the linker takes the
# whole ones from there. The test is the same as that of a broken library.
function(korvane_player_mutant name)
    cmake_parse_arguments(ARG "" "SCENARIO" "SAYS" ${ARGN})
    set(patch "${CMAKE_CURRENT_SOURCE_DIR}/${name}.patch")
    file(STRINGS "${patch}" changed REGEX "^--- a/")
    string(REPLACE "--- a/" "" changed "${changed}")
    set(broken "${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp")
    add_custom_command(
        OUTPUT "${broken}"
        COMMAND patch --quiet --fuzz=0 --output "${broken}" --input "${patch}"
                "${PROJECT_SOURCE_DIR}/${changed}"
        DEPENDS "${PROJECT_SOURCE_DIR}/${changed}" "${patch}"
        COMMENT "Breaking ${changed}: ${name}")

    add_executable(mutant_${name} "${PROJECT_SOURCE_DIR}/player/testbench.cpp" "${broken}")
    target_link_libraries(mutant_${name} PRIVATE korvane::tv korvane::testbench)
    target_compile_definitions(mutant_${name} PRIVATE KORVANE_VERSION="${PROJECT_VERSION}")
    set_target_properties(mutant_${name} PROPERTIES
        OUTPUT_NAME ${name} RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/mutants")
    korvane_launcher(broken_tv mutant_${name})
    add_test(NAME mutant_${name}
             COMMAND "${CMAKE_CURRENT_SOURCE_DIR}/expect_caught.sh" "${korvane_tv}" ""
                     "${PROJECT_SOURCE_DIR}/scenarios/${ARG_SCENARIO}" ${ARG_SAYS})
    set_tests_properties(mutant_${name} PROPERTIES ENVIRONMENT "KORVANE_BROKEN_TV=${broken_tv}")
endfunction()

korvane_player_mutant(slip_backwards SCENARIO cadence-24-on-59.94.toml
                      SAYS "slips: expected 6 to 8, seen 0" "unexpected: expected 0, seen"
                           "first at frame [0-9]+")
