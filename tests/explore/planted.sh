#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Explores each library with a planted fault until the fault is found, by each strategy, a minute at
# most, and prints a table: planted.sh KORVANE_TV FOLDER_OF_LIBRARIES FOLDER_OF_PATCHES [JOBS [NAME...]]
# Exit status 1 if no strategy finds one of them.
set -u

tv=$1
libraries=$2
patches=$3
jobs=${4:-2}
[ $# -lt 4 ] || shift
shift 3
limit=${KORVANE_PLANTED_LIMIT:-60s}
status=0
cell=$(mktemp)

# What a strategy found: "schedules, seconds" and, in $what, the fault.
explore() {
    output=$("$tv" explore --library "$libraries/$1/libkorvane_tunnelrenderer.so" --until-fault \
        --for "$limit" --jobs "$jobs" --strategy "$2" 2>/dev/null)
    first=$(printf '%s\n' "$output" | sed -n 's/^ *in .*first after \([0-9,]*\) schedules\{0,1\} (\([0-9.]* s\)).*/\1, \2/p' |
        head -n 1)
    if [ -n "$first" ]; then
        what=$(printf '%s\n' "$output" | sed -n 's/^FAULT *//p' | head -n 1)
        found=1
    fi
    printf '%s' "${first:-not found}"
}

[ $# -gt 0 ] || set -- $(cd "$patches" && ls -- *.patch | sed 's/\.patch$//')
echo '| planted | random: schedules, time | pct | exhaustive | reported first |'
echo '|---|---|---|---|---|'
for name in "$@"; do
    found=0
    what=
    row="| $(sed -n '2s/\.$//p' "$patches/$name.patch") |"
    for strategy in ${KORVANE_PLANTED_STRATEGIES:-random pct exhaustive}; do
        explore "$name" "$strategy" >"$cell"
        row="$row $(cat "$cell") |"
    done
    echo "$row ${what:-} |"
    [ "$found" -eq 1 ] || status=1
done
rm -f "$cell"
exit "$status"
