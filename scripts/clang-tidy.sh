#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Runs clang-tidy on the sources of the tree:
#     scripts/clang-tidy.sh UNITY_DIR FILES_DIR [JOBS [ANALYSED]]
# Both folders hold compile_commands.json. Findings are errors (.clang-tidy). Tests are left out, because
# most of the time would go into GoogleTest's macros; warnings and sanitizers check them. So is the
# frozen player in abi/, which may not change.
#
# The checks of syntax take UNITY_DIR's files, each of which includes several sources: they walk through
# all headers, once for several sources. The analyzer follows paths through the main file only, so it
# takes the sources one by one from FILES_DIR; it leaves out the rooms that make text from values, where it
# would take most of its time and where no memory, descriptor or thread is held, and the benchmarks, whose
# loops never read their variable. ANALYSED, a pattern of folders, narrows it further.
# One process per file: the analyzer's check of va_list keeps state between files and then reports
# correct calls. The commands lose an option that only g++ knows.
set -eu

unity=$1
files=$2
jobs=${3:-1}
analysed=${4:-.}
root=$(pwd)

# The files that a folder compiles: sources_of DIR [PATTERN], without those that match the pattern.
sources_of() {
    sed -n 's/^ *"file": "\(.*\)",*$/\1/p' "$1/compile_commands.json" | sort -u |
        grep -vE "^$root/(tests|abi|$1/tests)/${2:+|$2}"
}

# Reads the files from standard input: check DIR ARGUMENT...
check() {
    dir=$1/clang-tidy
    shift
    mkdir -p "$dir"
    sed -e 's/ -femit-class-debug-always//; s/ -Wno-tsan//' "${dir%/*}/compile_commands.json" \
        >"$dir/compile_commands.json"
    xargs -P "$jobs" -n 1 clang-tidy --quiet -p "$dir" "$@" 2>/dev/null
}

sources_of "$unity" | check "$unity" "--checks=-clang-analyzer-*"
sources_of "$files" "^$root/(bench|player/(report|scenario|page|compare|command))/" |
    grep -E "^$root/($analysed)" | check "$files" \
    '--checks=-*,clang-analyzer-*,-clang-analyzer-optin.performance.Padding'
