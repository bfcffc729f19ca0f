#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# An installed tree, used from outside: a player of somebody else's finds the library by CMake and
# by pkg-config and plays ten frames on the simulated TV; korvane-tv plays an installed scenario; no
# file knows a folder in which it was built.
#   check_tree.sh TREE SCRATCH_FOLDER     TREE holds bin/, include/, lib/, share/
set -eu

tree=$(cd "$1" && pwd)
scratch=$(cd "$2" && pwd)
sources=$(cd "$(dirname "$0")/../.." && pwd)
unset LD_LIBRARY_PATH
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$tree/lib" -name korvane_tunnelrenderer.pc)")
: "${CXX:=c++}"

fail() {
    echo "check_tree: $*" >&2
    exit 1
}

# Copied, so that nothing of this project lies beside them.
rm -rf "$scratch/consumer"
cp -R "$sources/tests/consumer" "$scratch/consumer"
cd "$scratch/consumer"

echo "== by CMake"
configure() {
    cmake -S . -B "$1" -G Ninja -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_PREFIX_PATH="$tree"
}
configure by-cmake
cmake --build by-cmake
by-cmake/play_ten

echo "== by CMake, a version that is not there"
sed -i 's/korvane_tunnelrenderer 1\.0/korvane_tunnelrenderer 2.0/' CMakeLists.txt
if configure by-cmake-2 >refused.log 2>&1 || ! grep -q 'compatible with requested' refused.log; then
    cat refused.log
    fail "version 2.0 was to be refused because this is another"
fi

echo "== by pkg-config"
[ "$(pkg-config --modversion korvane_tunnelrenderer)" = \
    "$("$tree/bin/korvane-tv" --version | cut -d' ' -f2)" ] ||
    fail "pkg-config has another version than korvane-tv"
# shellcheck disable=SC2046 # flags are meant to be split
"$CXX" -std=c++17 play_ten.cpp -o by-pkg-config \
    $(pkg-config --cflags --libs korvane_tunnelrenderer korvane_tv) \
    -Wl,-rpath,"$(pkg-config --variable=libdir korvane_tv)"
./by-pkg-config

echo "== each header alone"
find "$tree/include" -name '*.h' | while read -r header; do
    # shellcheck disable=SC2046 # flags are meant to be split
    echo "#include \"$header\"" |
        "$CXX" -std=c++17 -fsyntax-only -x c++ $(pkg-config --cflags korvane_tv) - ||
        fail "$header includes what is not installed"
done

echo "== tools"
"$tree/bin/korvane-tv" run cadence-24-on-60
"$tree/bin/korvane-tv" list | grep -qx cadence-24-on-60 || fail "list names no installed scenario"

if grep -rlF "$sources" "$tree"; then
    fail "these files name the folder in which they were built"
fi
