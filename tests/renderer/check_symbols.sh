#!/bin/sh
# What the renderer library exports, imports by name and is called: check_symbols.sh LIBRARY
# The lists beside this script are pinned; a difference is printed and fails.
set -eu

library=$1
here=$(dirname "$0")
status=0

exports=$(nm -D --defined-only --format=posix "$library" | awk '{print $1}' | LC_ALL=C sort)
if ! printf '%s\n' "$exports" | diff -u "$here/exports.txt" -; then
    echo "exports differ from exports.txt (- pinned, + built)" >&2
    status=1
fi

imports=$(nm -D --undefined-only --format=posix "$library" | awk '{print $1}')
while read -r symbol; do
    if ! printf '%s\n' "$imports" | grep -qxF "$symbol"; then
        echo "no longer a dynamic import: $symbol" >&2
        status=1
    fi
done < "$here/imports.txt"

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
