#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Makes the Debian packages of a finished build and checks them: the manual page is well formed,
# lintian has nothing to say, and unpacked side by side they are a tree that a player can use.
#   packaging/package.sh BUILD_FOLDER OUTPUT_FOLDER
set -eu

build=${1:?BUILD_FOLDER OUTPUT_FOLDER}
output=${2:?BUILD_FOLDER OUTPUT_FOLDER}
project=$(cd "$(dirname "$0")/.." && pwd)

fail() {
    echo "package: $*" >&2
    exit 2
}

for file in CPackConfig.cmake bin/korvane-tv bin/korvane-tv-testbench; do
    [ -r "$build/$file" ] || fail "$build has no $file; run make build"
done
for tool in dpkg-shlibdeps file mandoc lintian; do
    command -v $tool >/dev/null || fail "$tool is missing; run scripts/install-deps.sh package"
done

mandoc -T lint -W warning "$project/packaging/korvane-tv.1"

mkdir -p "$output"
rm -rf "$output"/*.deb "$output/_CPack_Packages" "$output/unpacked"
cpack --config "$build/CPackConfig.cmake" -B "$output" >"$output/cpack.log" 2>&1 || {
    cat "$output/cpack.log" >&2
    fail "cpack could not make the packages"
}
rm -rf "$output/_CPack_Packages"

lintian --allow-root --fail-on error,warning "$output"/*.deb

for package in "$output"/*.deb; do
    dpkg-deb --extract "$package" "$output/unpacked"
done
"$project/tests/install/check_tree.sh" "$output/unpacked/usr" "$output" >"$output/check.log" || {
    cat "$output/check.log" >&2
    fail "the unpacked packages do not work"
}
ls "$output"/*.deb
