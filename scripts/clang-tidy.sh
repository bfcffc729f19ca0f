#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# clang-tidy over the sources of the tree: scripts/clang-tidy.sh BUILD_DIR [JOBS]
# The build directory holds compile_commands.json. Findings are errors (.clang-tidy). Tests are left
# out: most of their time would go into GoogleTest's macros; warnings and sanitizers look at them.
# So are the frozen player in abi/, which may not change, and examples/, a project of its own.
# One file to a process: the analyzer's check of va_list carries state from file to file and then
# reports calls that are right.
# What only g++ knows is taken out of the commands.
set -eu

build=$1
jobs=${2:-1}
mkdir -p "$build/clang-tidy"
sed 's/ -femit-class-debug-always//' "$build/compile_commands.json" \
    >"$build/clang-tidy/compile_commands.json"
git ls-files '*.cpp' | grep -v -e '^tests/' -e '^abi/' -e '^examples/' |
    xargs -P "$jobs" -n 1 clang-tidy --quiet -p "$build/clang-tidy" 2>/dev/null
