#!/bin/sh
# clang-tidy over the sources of the tree: scripts/clang-tidy.sh BUILD_DIR [JOBS]
# The build directory holds compile_commands.json. Findings are errors (.clang-tidy). Tests are left
# out: most of their time would go into GoogleTest's macros; warnings and sanitizers look at them.
set -eu

build=$1
jobs=${2:-1}
git ls-files '*.cpp' | grep -v '^tests/' |
    xargs -P "$jobs" -n 4 clang-tidy --quiet -p "$build" 2>/dev/null
