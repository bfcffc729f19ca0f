#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Every file of the tree names its licence in a line that tools read; this lists those that do not.
# LICENSE is the licence itself; npm writes package-lock.json anew and keeps no such line; what holds
# no text has its line in a file beside it, with .license added to the name.
set -eu

without=$(git ls-files -- ':!LICENSE' ':!*/package-lock.json' |
    xargs grep -L -e 'SPDX-License-Identifier: Apache-2.0' -e '"license": "Apache-2.0"' |
    while read -r file; do [ -e "$file.license" ] || echo "$file"; done)
if [ -n "$without" ]; then
    echo "No licence named; add a line SPDX-License-Identifier: Apache-2.0 to:" >&2
    echo "$without" >&2
    exit 1
fi
