# SPDX-License-Identifier: Apache-2.0
# Android's own liblog, libcutils and libutils as Debian packages them: headers below
# /usr/include/android, libraries in the `android` folder of the multiarch library directory,
# which the loader does not search by itself, hence the run path.

find_path(ANDROID_INCLUDE_DIR NAMES android/log.h PATH_SUFFIXES android REQUIRED)
foreach(name log cutils utils)
    find_library(ANDROID_${name}_LIBRARY NAMES ${name}
                 PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android NO_DEFAULT_PATH REQUIRED)
    add_library(android::${name} SHARED IMPORTED)
    set_target_properties(android::${name} PROPERTIES
        IMPORTED_LOCATION "${ANDROID_${name}_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${ANDROID_INCLUDE_DIR}")
endforeach()

get_filename_component(ANDROID_LIBRARY_DIR "${ANDROID_log_LIBRARY}" DIRECTORY)
# Where they are for the loader: a sysroot is its root.
string(REPLACE "${CMAKE_SYSROOT}/" "/" ANDROID_LIBRARY_DIR "${ANDROID_LIBRARY_DIR}")
set(CMAKE_BUILD_RPATH "${ANDROID_LIBRARY_DIR}")
