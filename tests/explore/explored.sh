#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Explores with small budgets: nothing is found in the library, planted faults are, and what failed
# fails again the same: explored.sh KORVANE_TV LIBRARY FOLDER_OF_PLANTED SOURCE_FOLDER SCENARIO...
set -u

tv=$1
library=$2
planted=$3
source=$4
shift 4
# They differ from process to process.
addresses='s/0x[0-9a-f]*//g'

. "$(dirname "$0")/../support/expect.sh"

# A fixed seed, and one from the commit.
trace=$(mktemp)
trap 'rm -f "$trace"' EXIT
commit=$(git -C "$source" rev-parse --short=7 HEAD 2>/dev/null || echo 1)
for seed in 1 $((0x$commit)); do
    echo "seed $seed"
    expect 0 "^no fault found" "$tv" explore --library "$library" --schedules 6000 --jobs 2 --seed "$seed"
    expect 0 "^no fault found" "$tv" explore "$@" --library "$library" --schedules 1500 --jobs 2 \
        --seed "$seed"
done
expect 0 "start-flush-stop: .* with at most 1 preemption, all of them visited" "$tv" explore \
    start-flush-stop --library "$library" --strategy exhaustive --preemptions 1 --for 60s
expect 2 "is not a strategy" "$tv" explore --strategy clever
expect 2 "is no built-in program and no scenario" "$tv" explore stop-idel
expect 2 "--replay" "$tv" explore stop-idle --replay 3.x --library "$library"

while IFS='|' read -r name program text; do
    so=$planted/$name/libkorvane_tunnelrenderer.so
    expect 1 "$text" "$tv" explore "$program" --until-fault --for 60s --library "$so"
    again=$(printf '%s\n' "$output" | sed -n 's/.* --frames \([0-9]*\) --replay \([^ ]*\) .*/--frames \1 --replay \2/p' |
        head -n 1)
    # shellcheck disable=SC2086
    expect 1 "$text" "$tv" explore "$program" $again --library "$so"
    first=$(printf '%s\n' "$output" | sed "$addresses")
    # shellcheck disable=SC2086
    expect 1 "$text" "$tv" explore "$program" $again --library "$so" --trace "$trace"
    [ "$first" = "$(printf '%s\n' "$output" | sed "$addresses")" ] || { echo "$name: the replay differs"; result=1; }
    [ "$(wc -c <"$trace")" -gt 100 ] || { echo "$name: the trace is short"; result=1; }
done <<'TABLE'
stop_notifies_outside_lock|stop-idle|hang: threads wait
time_used_after_pop|play-through|use after free
callback_under_callback_lock|play-through|runs under mCallbackLock
queue_cleared_one_by_one|flush-stop|a frame is lost
TABLE
exit "$result"
