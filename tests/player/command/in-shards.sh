#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# A test program's cases in several processes at a time: in-shards.sh COUNT PROGRAM. In real time a
# play waits for most of its length, so that several together take hardly longer than one.
set -eu

count=$1
program=$2
output=$(mktemp -d)
trap 'rm -rf "$output"' EXIT

status=0
jobs=""
for shard in $(seq 0 $((count - 1))); do
    GTEST_TOTAL_SHARDS=$count GTEST_SHARD_INDEX=$shard "$program" >"$output/$shard" 2>&1 &
    jobs="$jobs $!"
done
for job in $jobs; do
    wait "$job" || status=1
done
cat "$output"/*
exit $status
