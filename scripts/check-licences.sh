#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Lists the files without an SPDX licence line. A file that holds no text has its line in a second
# file, with .license added to the name. Exempt are LICENSE, the licence itself, package-lock.json,
# which npm rewrites without the line, and the inputs of fuzz targets, where every byte counts.
set -eu

without=$(git ls-files -- ':!LICENSE' ':!*/package-lock.json' \
    ':!tests/fuzz/corpus/*/*' |
    xargs grep -L -e 'SPDX-License-Identifier: Apache-2.0' -e '"license": "Apache-2.0"' |
    while read -r file; do [ -e "$file.license" ] || echo "$file"; done)
if [ -n "$without" ]; then
    echo "These files have no licence line; add SPDX-License-Identifier: Apache-2.0:" >&2
    echo "$without" >&2
    exit 1
fi
