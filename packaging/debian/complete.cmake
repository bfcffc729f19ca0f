# SPDX-License-Identifier: Apache-2.0
# Runs when CPack has installed the components and has not packed them yet: adds what Debian wants
# in every package (copyright, changelog, lintian overrides), removes what Debian has elsewhere,
# compresses what it wants compressed. A version that the changelog does not name is refused.
set(debian "${CMAKE_CURRENT_LIST_DIR}")

file(READ "${debian}/changelog" changelog)
string(FIND "${changelog}" "${CPACK_PACKAGE_NAME} (${CPACK_PACKAGE_VERSION}) " at)
if(NOT at EQUAL 0)
    message(FATAL_ERROR "packaging/debian/changelog does not begin with "
                        "'${CPACK_PACKAGE_NAME} (${CPACK_PACKAGE_VERSION})'; say there what is new")
endif()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER "${component}" upper)
    set(package "${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
    set(share "${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share")
    file(COPY "${debian}/copyright" "${debian}/changelog" DESTINATION "${share}/doc/${package}")
    # Debian has the licence's text in common-licenses, which the copyright file points to.
    file(REMOVE "${share}/doc/${package}/LICENSE")
    if(EXISTS "${debian}/${package}.lintian-overrides")
        file(COPY "${debian}/${package}.lintian-overrides" DESTINATION "${share}/lintian/overrides")
        file(RENAME "${share}/lintian/overrides/${package}.lintian-overrides"
                    "${share}/lintian/overrides/${package}")
    endif()
    file(GLOB manuals "${share}/man/man*/*.[0-9]")
    execute_process(COMMAND gzip -9nf "${share}/doc/${package}/changelog" ${manuals}
                    COMMAND_ERROR_IS_FATAL ANY)
endforeach()
