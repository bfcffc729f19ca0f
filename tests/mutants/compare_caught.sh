#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# A scenario on the library, on a copy of it and on a broken one; compare tells them apart, and what
# is no library is refused: compare_caught.sh KORVANE_TV LIBRARY BROKEN_LIBRARY SCENARIO FOLDER
set -u

tv=$1
library=$2
broken=$3
scenario=$4
folder=$5
name=$(basename "$scenario" .toml).events
. "$(dirname "$0")/../support/expect.sh"
rm -rf "$folder"
mkdir -p "$folder"
cd "$folder" || exit 1

cp "$library" copy.so
head -c 4096 "$library" >cut.so
printf 'no library' >text.so
{ head -c 18 "$library"; printf '\050'; tail -c +20 "$library"; } >other.so
other=$(ls /lib/*/libm.so.6 /usr/lib/*/libm.so.6 2>/dev/null | head -n 1)

expect 0 "^ok " "$tv" run "$scenario" --events linked
expect 0 "--library copy.so" "$tv" run "$scenario" --events copy --library copy.so
expect 1 "--library .*/mutants/" "$tv" run "$scenario" --events broken --library "$broken"
expect 0 "^Same to the byte$" "$tv" compare "linked/$name" "copy/$name"
expect 1 "^B is worse: .*unexpected dwells? more, first at " "$tv" compare "copy/$name" "broken/$name"
expect 0 "^B is better: .*unexpected dwells? fewer" "$tv" compare "broken/$name" "copy/$name"
expect 2 "No such file" "$tv" run "$scenario" --library missing.so
expect 2 "no shared library" "$tv" run "$scenario" --library text.so
expect 2 "no shared library" "$tv" run "$scenario" --library "$folder"
expect 2 "another processor" "$tv" run "$scenario" --library other.so
expect 2 "is cut short" "$tv" run "$scenario" --library cut.so
expect 2 "does not export" "$tv" run "$scenario" --library "$other"
exit "$result"
