#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Whether the sources of an earlier version's player are still those of that version:
# check_frozen.sh FOLDER, which holds their sums in SHA256SUMS
set -eu

cd "$1"
if ! sha256sum --check --strict --quiet SHA256SUMS; then
    echo "abi: the files above are frozen, they stand for players that were built long ago;" \
        "undo the edit (git checkout -- abi/$(basename "$1"))" >&2
    exit 1
fi
