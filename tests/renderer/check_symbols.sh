#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# What the renderer library exports, imports by name and is called: check_symbols.sh LIBRARY
# The lists beside this script are pinned; a difference is printed and fails. They hold what comes
# after a common beginning (none for "(whole)").
set -eu

library=$1
here=$(dirname "$0")
status=0

pinned() {
    awk '/^#/ { next }
         /^[^ ]/ { begin = $1 == "(whole):" ? "" : substr($1, 1, length($1) - 1); $1 = "" }
         { for (i = 1; i <= NF; ++i) if ($i != "") print begin $i }' "$here/$1" | LC_ALL=C sort
}

exports=$(nm -D --defined-only --format=posix "$library" | awk '{print $1}' | LC_ALL=C sort)
if ! pinned exports.txt | diff -u - /dev/fd/3 3<<END
$exports
END
then
    echo "exports differ from exports.txt (- pinned, + built)" >&2
    status=1
fi

imports=$(nm -D --undefined-only --format=posix "$library" | awk '{print $1}')
for symbol in $(pinned imports.txt); do
    if ! printf '%s\n' "$imports" | grep -qxF "$symbol"; then
        echo "no longer a dynamic import: $symbol" >&2
        status=1
    fi
done

if nm -C --defined-only "$library" | grep -E 'typeinfo (for|name for) (VideoTunnel|VideoSync)'; then
    echo "run-time type information is emitted for the classes above" >&2
    status=1
fi

soname=$(readelf -d "$library" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
if [ "$soname" != libkorvane_tunnelrenderer.so ]; then
    echo "SONAME is '$soname'" >&2
    status=1
fi
exit $status
