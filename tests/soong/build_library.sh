#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Builds the device's module out of Android.bp with mini-soong and plays a scenario on it:
# build_library.sh TREE WORK_DIR LIBRARY_DIR KORVANE_TV SCENARIO
# The simulated TV is CMake's. The two builds of the library must export the same names and write
# the same events.
set -eu

tree=$1
work=$2
libraries=$3
tv=$4
scenario=$5
name=libkorvane_tunnelrenderer.so

# mini-soong's makefile compiles where the sources are and leaves its output there.
rm -rf "$work"
mkdir -p "$work"
for entry in Android.bp display frac include mediasync platform renderer tv videotunnel; do
    ln -s "$tree/$entry" "$work/$entry"
done
# The makefile expects the libraries that Debian lacks beside the library.
ln -s "$libraries/libkorvane_mediasync.so" "$libraries/libui.so" "$work"
cd "$work"

# It passes sources and libraries on, and cflags but for -Werror. The properties that it does not
# know are given by hand: cpp_std, rtti, header_libs, version_script, the build folder as include
# folder, and cppflags where sources come from defaults. Debian's Android headers and the simulated
# TV's stand in for those of a device.
if ! mini-soong Android.bp -o soong.mk 2>warnings.txt; then
    cat warnings.txt >&2
    exit 1
fi
language='-std=c++17 -fno-rtti -fvisibility-inlines-hidden -Werror'
includes='-I. -Iinclude -Itv/device/include -isystem /usr/include/android'
run_path="$libraries:/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/android"
make -f soong.mk CC=c++ CPPFLAGS="$language $includes" \
    LDFLAGS="-L$libraries -Wl,-rpath,$run_path -Wl,--version-script=renderer/exports.map" $name

exported() {
    nm -D --defined-only --format=posix "$1" | cut -d ' ' -f 1 | LC_ALL=C sort
}
exported "$libraries/$name" >exports-cmake.txt
exported $name >exports-soong.txt
diff exports-cmake.txt exports-soong.txt

# A device's libcutils has property_get; here another library brings it.
on_soong() {
    LD_LIBRARY_PATH="$work" LD_PRELOAD="$libraries/libcutils_properties.so" "$@"
}
if ! on_soong ldd "$tv" | grep -qF "$work/$name"; then
    echo "korvane-tv does not load the library that mini-soong built" >&2
    exit 1
fi
events_of() {
    sed -n 's/^ok .* events \([0-9a-f]*\) .*/\1/p'
}
cmake=$("$tv" run "$scenario" | events_of)
soong=$(on_soong "$tv" run "$scenario" | events_of)
echo "events by CMake's library $cmake, by mini-soong's $soong"
[ -n "$cmake" ] && [ "$cmake" = "$soong" ]
