#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Runs clang-tidy on the sources of the tree: scripts/clang-tidy.sh BUILD_DIR [JOBS]
# BUILD_DIR holds compile_commands.json. Findings are errors (.clang-tidy). Tests are left out, because
# most of the time would go into GoogleTest's macros; warnings and sanitizers check them.
# So are the frozen player in abi/, which may not change, and examples/, a project of its own.
# One process per file: the analyzer's check of va_list keeps state between files and then reports
# correct calls. The commands lose what only g++ knows: an option, its precompiled header.
set -eu

build=$1
jobs=${2:-1}
mkdir -p "$build/clang-tidy"
sed -e 's/ -femit-class-debug-always//' -e 's/ -Winvalid-pch -include [^ ]*//' "$build/compile_commands.json" \
    >"$build/clang-tidy/compile_commands.json"
git ls-files '*.cpp' | grep -v -e '^tests/' -e '^abi/' -e '^examples/' |
    xargs -P "$jobs" -n 1 clang-tidy --quiet -p "$build/clang-tidy" 2>/dev/null
