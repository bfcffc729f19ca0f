#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs a build with DESTDIR, as package builders do, moves the tree to another folder and checks it
# there: every path in it must be relative.
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
