#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs a build as a package maker does (DESTDIR), moves the tree to a folder of another name and
# checks it there: it must find everything by its place relative to itself.
#   check_moved.sh CMAKE BUILD_FOLDER SCRATCH_FOLDER
set -eu

cmake=$1
build=$2
scratch=$3
here=$(cd "$(dirname "$0")" && pwd)

rm -rf "$scratch"
mkdir -p "$scratch"
DESTDIR="$scratch/staged" "$cmake" --install "$build" --prefix /installed/here --strip \
    >"$scratch/install.log"
mv "$scratch/staged/installed/here" "$scratch/moved"
"$here/check_tree.sh" "$scratch/moved" "$scratch"
