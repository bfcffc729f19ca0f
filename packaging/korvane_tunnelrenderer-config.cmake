# SPDX-License-Identifier: Apache-2.0
# find_package(korvane_tunnelrenderer 1.0 REQUIRED) gives
#
#   korvane::tunnelrenderer  the renderer, for players
#   korvane::tv              the simulated TV, for programs that switch one on; link it before
#                            anything that brings Android's liblog or libcutils
include("${CMAKE_CURRENT_LIST_DIR}/korvane_tunnelrenderer-targets.cmake")
