#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# rate-matrix.sh KORVANE_TV: plays every content rate on every display rate for 40 s and prints the
# verdicts as the table of docs/report.md.
set -eu

tv=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

echo '| content | display | verdict |'
echo '|---|---|---|'
for content in 23.976 24 25 29.97 30 48 50 59.94 60 120; do
    for display in 24 50 59.94 60 100 119.88 120 144; do
        cat >"$folder/pair.toml" <<EOF
title = "$content fps on $display Hz"
holds = "what its verdict says"
[content]
fps = $content
duration = "40s"
[display]
rate = $display
[audio]
[expect]
EOF
        verdict=$("$tv" run "$folder/pair.toml" --verbose 2>&1 | sed -n 's/^ *verdict *//p')
        echo "| $content | $display | ${verdict%; every frame accounted for*} |"
    done
done
