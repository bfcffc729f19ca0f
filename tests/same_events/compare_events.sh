#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Two builds of the player do the same to the byte, whatever their processors:
#   compare_events.sh REFERENCE PROGRAM SCRATCH_FOLDER SCENARIO...
# Both play the scenarios; each event log that differs is named, with the place where it begins to.
set -u

reference=$1
program=$2
scratch=$3
shift 3

if [ ! -x "$reference" ]; then
    echo "compare_events: there is no '$reference' to compare with; build it with: make build" >&2
    exit 2
fi
rm -rf "$scratch"
mkdir -p "$scratch"
cd "$scratch" || exit 2
"$reference" run "$@" --events reference >reference.log 2>&1 &
"$program" run "$@" --events program >program.log 2>&1
status=$?
wait $! || status=1
[ $status -eq 0 ] || grep -v '^ok ' reference.log program.log

different=0
for scenario; do
    events=$(basename "$scenario" .toml).events
    if ! place=$(LC_ALL=C cmp "reference/$events" "program/$events" 2>&1); then
        different=$((different + 1))
        echo "DIFFERS $scenario: $place"
        for side in reference program; do
            [ -s "$side/$events" ] || continue
            tail -n "+${place##*line }" "$side/$events" | head -n 2 | sed "s/^/    $side: /"
        done
    fi
done
echo "$# scenarios, $different differ"
[ $status -eq 0 ] && [ $different -eq 0 ] || exit 1
# A day's log is large.
rm -rf "$scratch"
