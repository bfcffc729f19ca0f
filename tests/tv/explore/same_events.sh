#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The library compiled for exploring writes the event logs of the one that is shipped:
# same_events.sh KORVANE_TV LIBRARY FOLDER SCENARIO...
set -eu

tv=$1
library=$2
folder=$3
shift 3
rm -rf "$folder"
mkdir -p "$folder"
"$tv" run "$@" --seeds 1..2 --preempt --events "$folder/shipped"
"$tv" run "$@" --seeds 1..2 --preempt --events "$folder/explored" --library "$library"
diff -r "$folder/shipped" "$folder/explored"
