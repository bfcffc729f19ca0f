#!/bin/sh
# clang-tidy over every source of the tree: scripts/clang-tidy.sh BUILD_DIR [JOBS]
# The build directory holds compile_commands.json. Findings are errors (.clang-tidy).
set -eu

build=$1
jobs=${2:-1}
git ls-files '*.cpp' | grep -v '^tests/consumer/' |
    xargs -P "$jobs" -n 4 clang-tidy --quiet -p "$build" 2>/dev/null
