#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# A broken library must make a scenario fail with a message that leads to the fault:
# expect_caught.sh KORVANE_TV LIBRARY_DIR SCENARIO TEXT...
# So must a broken player, the program KORVANE_BROKEN_TV; LIBRARY_DIR is then empty.
set -u

tv=$1
library_dir=$2
scenario=$3
shift 3

if ! "$tv" run "$scenario" >/dev/null 2>&1; then
    echo "the scenario fails on the intact library too" >&2
    exit 1
fi
output=$(LD_LIBRARY_PATH="$library_dir" timeout 120 "${KORVANE_BROKEN_TV:-$tv}" run "$scenario" 2>&1)
status=$?
printf '%s\n' "$output"
if [ "$status" -eq 0 ] || [ "$status" -eq 124 ]; then
    echo "the broken library is not caught (exit status $status)" >&2
    exit 1
fi
for text in "$@"; do
    if ! printf '%s\n' "$output" | grep -qE "$text"; then
        echo "caught, but the output has no '$text'" >&2
        exit 1
    fi
done
