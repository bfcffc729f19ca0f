# SPDX-License-Identifier: Apache-2.0
# Libraries of the host programs, for tv/ and player/ alike. The renderer library links none of them.
#
#   Boost::headers                 Boost.Intrusive
#   nlohmann_json::nlohmann_json   reads and writes JSON; include it in few files, it is large
#   korvane::fmt                   {fmt}, formatting
#   korvane::protozero             encodes protobuf, headers only

find_package(Boost REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(fmt REQUIRED)

# Debian builds its {fmt} library with libstdc++; its headers hold all of it, for another build.
if(KORVANE_LIBCXX)
    add_library(korvane_fmt STATIC "${CMAKE_CURRENT_LIST_DIR}/FmtLibrary.cpp")
    target_include_directories(korvane_fmt SYSTEM PUBLIC
        $<TARGET_PROPERTY:fmt::fmt-header-only,INTERFACE_INCLUDE_DIRECTORIES>)
    target_compile_features(korvane_fmt PUBLIC cxx_std_17)
    add_library(korvane::fmt ALIAS korvane_fmt)
else()
    add_library(korvane::fmt ALIAS fmt::fmt)
endif()

find_path(KORVANE_PROTOZERO_INCLUDE protozero/pbf_builder.hpp REQUIRED)
add_library(korvane_protozero INTERFACE)
add_library(korvane::protozero ALIAS korvane_protozero)
target_include_directories(korvane_protozero SYSTEM INTERFACE "${KORVANE_PROTOZERO_INCLUDE}")
