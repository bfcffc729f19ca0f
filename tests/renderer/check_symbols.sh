#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# What the renderer library exports, imports by name and is called, that it reaches its own functions
# directly, and for which processor (as uname calls it) it is made:
# check_symbols.sh LIBRARY [PROCESSOR]
# The lists beside this script are pinned; a difference is printed and fails. They hold what comes
# after a common beginning (none for "(whole)").
set -eu

library=$1
processor=${2:-}
here=$(dirname "$0")
status=0

pinned() {
    awk '/^#/ { next }
         /^[^ ]/ { begin = $1 == "(whole):" ? "" : substr($1, 1, length($1) - 1); $1 = "" }
         { for (i = 1; i <= NF; ++i) if ($i != "") print begin $i }' "$here/$1" | LC_ALL=C sort
}

# compare LIST NAMES
compare() {
    if ! pinned "$1.txt" | diff -u --label "$1.txt" - --label "$library" /dev/fd/3 3<<END
$2
END
    then
        echo "$1 differ from $1.txt (- pinned, + built)" >&2
        status=1
    fi
}

compare exports "$(nm -D --defined-only --format=posix "$library" | awk '{print $1}' |
    LC_ALL=C sort)"
# The platform's alone: names of the C library and of libstdc++ carry versions; libc++'s are known
# by their spelling.
compare imports "$(nm -D --undefined-only "$library" |
    awk '$1 == "U" && $2 !~ /@|^_ZNK?St|^_ZSt|^_Zn[aw]|^_Zd[al]|^__cxa_/ {print $2}' |
    LC_ALL=C sort)"

# Its calls of these are bound inside it: the dynamic linker is asked for none of its own functions.
functions=$(nm -D --defined-only "$library" | awk '$2 ~ /[TW]/ {print $3}')
if readelf --relocs --wide "$library" | awk '{print $5}' | grep -Fx "$functions"; then
    echo "the functions above are called through a table, where a process can replace them" >&2
    status=1
fi

if nm -C --defined-only "$library" | grep -E 'typeinfo (for|name for) (VideoTunnel|VideoSync)'; then
    echo "run-time type information is emitted for the classes above" >&2
    status=1
fi

soname=$(readelf -d "$library" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
if [ "$soname" != libkorvane_tunnelrenderer.so ]; then
    echo "SONAME is '$soname'" >&2
    status=1
fi

machine=$(readelf -h "$library" | sed -n 's/ *Machine: *//p')
case $(echo "$machine" | tr 'A-Z-' 'a-z_') in
*"$processor") ;;
*)
    echo "made for $machine, not $processor" >&2
    status=1
    ;;
esac
exit $status
