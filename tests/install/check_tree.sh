#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Uses an installed tree as its users do. The installed example finds the library, by CMake and by
# pkg-config, and plays on the simulated TV; each header compiles alone; korvane-tv plays an installed
# scenario; no file names the folder in which it was built.
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

rm -rf "$scratch/example"
cp -R "$tree/share/doc/libkorvane-tunnelrenderer-dev/examples" "$scratch/example"
cd "$scratch/example"

echo "== by CMake"
configure() {
    cmake -S . -B "$1" -G Ninja -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_PREFIX_PATH="$tree"
}
configure by-cmake
cmake --build by-cmake
by-cmake/player

echo "== by CMake, a version that is not there"
sed -i 's/korvane_tunnelrenderer 1\.0/korvane_tunnelrenderer 2.0/' CMakeLists.txt
if configure by-cmake-2 >refused.log 2>&1 || ! grep -q 'compatible with requested' refused.log; then
    cat refused.log
    fail "CMake accepted version 2.0, or refused it for another reason"
fi

echo "== by pkg-config"
[ "$(pkg-config --modversion korvane_tunnelrenderer)" = \
    "$("$tree/bin/korvane-tv" --version | cut -d' ' -f2)" ] ||
    fail "pkg-config has another version than korvane-tv"
# shellcheck disable=SC2046 # flags are meant to be split
"$CXX" -std=c++17 player.cpp -o by-pkg-config \
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
