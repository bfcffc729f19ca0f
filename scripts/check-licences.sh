#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Every file of the tree names its licence in a line that tools read; this lists those that do not.
# LICENSE is the licence itself; npm writes package-lock.json anew and keeps no such line.
set -eu

without=$(git ls-files -- ':!LICENSE' ':!*/package-lock.json' |
    xargs grep -L -e 'SPDX-License-Identifier: Apache-2.0' -e '"license": "Apache-2.0"' || true)
if [ -n "$without" ]; then
    echo "No licence named; add a line SPDX-License-Identifier: Apache-2.0 to:" >&2
    echo "$without" >&2
    exit 1
fi
