# SPDX-License-Identifier: Apache-2.0
# Three .deb files by CPack, one per component, for the processor that builds them. `make package`
# makes and checks them.
#
# What other libraries they need dpkg-shlibdeps finds out; it is shown the build's own libraries,
# which no package provides yet. What only Debian wants in a package (debian/) is put in at the end.
set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_NAME korvane-tunnelrenderer)
set(CPACK_PACKAGE_CONTACT "Korvane tunnel renderer authors <authors@korvane.invalid>")
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_SOURCE_DIR}/debian/complete.cmake")

set(same_version "${runtime_package} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "tunnel-mode video renderer for TV-class Android devices
A media player hands the library decoded frames; the library decides for each
whether it is shown, held or dropped and when, in step with audio, on the
display's vsync grid and in the content's pulldown cadence, and queues it into
the platform's video tunnel.
.
On a host that is no such device it runs on the simulated TV that comes with
it: a display, a video tunnel with fences, a media-sync service and an audio
side, in real or virtual time.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${dev_package})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${same_version}")
set(CPACK_DEBIAN_DEV_DESCRIPTION "tunnel-mode video renderer (development files)
Headers, CMake package and pkg-config files for programs that play through the
renderer library, and for those that switch a simulated TV on and look at what
it showed. With an example that does both.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${tools_package})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${same_version}")
# For --window, which opens it by name.
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS libsdl2-2.0-0)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "plays media through the tunnel renderer onto a simulated TV
Shows a stream's cadence, drops and lip-sync frame by frame, from what the
display had on screen at each vsync, and the same failure again at will.
Brings a library of scenarios: playbacks that go wrong on purpose.")

include(CPack)
