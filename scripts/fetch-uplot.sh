#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Fetches the chart library of the report page, the npm package uplot (50 kB, (c) Leon Sorokin, MIT),
# into .cache/uplot, which git ignores. uplot/package-lock.json pins its hash, so npm refuses
# anything else. The build runs this beside the compilers:
#   fetch-uplot.sh --for-build   never fails: without the library three empty files stand in its
#                                place, the build goes on, and `--report` says what is missing
# Run by hand it tries again; the next build then takes the files.
set -eu

scripts=$(cd "$(dirname "$0")" && pwd)
cache=$(dirname "$scripts")/.cache/uplot
files="uPlot.iife.min.js uPlot.min.css LICENSE"

fail() {
    echo "fetch-uplot: $*" >&2
    [ "${for_build-}" ] || exit 1
    echo "fetch-uplot: building without the charts of --report; run scripts/fetch-uplot.sh later" >&2
    for file in $files; do
        : >"$cache/$file"
    done
    exit 0
}

[ "${1-}" != --for-build ] || for_build=1
mkdir -p "$cache"
# Builds of several folders may come here at once.
exec 9>"$cache/lock"
flock 9
if [ -s "$cache/LICENSE" ]; then
    touch "$cache/LICENSE"
    exit 0
fi
command -v npm >/dev/null || fail "npm is missing; install it (scripts/install-deps.sh)"
rm -rf "$cache/fetching"
mkdir "$cache/fetching"
cp "$scripts/uplot/package.json" "$scripts/uplot/package-lock.json" "$cache/fetching/"
(cd "$cache/fetching" && npm ci --ignore-scripts --no-audit --no-fund --fetch-retries=1 \
    --fetch-timeout=20000 --loglevel=error) >"$cache/npm.log" 2>&1 ||
    fail "npm could not fetch uPlot ($(sed -n 's/^npm [a-zA-Z!]* code //p' "$cache/npm.log" |
        head -n 1), see $cache/npm.log); check the network"
package=$cache/fetching/node_modules/uplot
for file in "$package/dist/uPlot.iife.min.js" "$package/dist/uPlot.min.css" "$package/LICENSE"; do
    cp "$file" "$cache/"
done
rm -rf "$cache/fetching"
