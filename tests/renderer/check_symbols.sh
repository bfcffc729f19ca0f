#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# What the renderer library exports, imports by name and is called, that lack of memory does not end
# it, that it reaches its own functions directly, and for which processor (as uname calls it) it is made:
# check_symbols.sh LIBRARY [PROCESSOR]
# Fails and prints the difference when the built symbols are not those of the lists beside this
# script. A list gives a common prefix and what follows it; "(whole)" stands for no prefix.
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
# Only the platform's: the C library's and libstdc++'s names have versions, libc++'s are recognised by
# their spelling.
compare imports "$(nm -D --undefined-only "$library" |
    awk '$1 == "U" && $2 !~ /@|^_ZNK?St|^_ZSt|^_Zn[aw]|^_Zd[al]|^__cxa_/ {print $2}' |
    LC_ALL=C sort)"

# It has no exceptions: memory is asked for with std::nothrow, and its lack is handled where it is met.
if nm -D --undefined-only "$library" | grep -E ' _Zn[aw][jm](@|$)'; then
    echo "the operators above would end the process when there is no memory" >&2
    status=1
fi

# Its calls of its own functions are bound: no relocation names one of them.
functions=$(nm -D --defined-only "$library" | awk '$2 ~ /[TW]/ {print $3}')
if readelf --relocs --wide "$library" | awk '{print $5}' | grep -Fx "$functions"; then
    echo "the calls of the functions above are not bound inside the library" >&2
    status=1
fi

if nm -C --defined-only "$library" | grep -E 'typeinfo (for|name for) (VideoTunnel|VideoSync)'; then
    echo "the classes above have run-time type information" >&2
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
    echo "built for $machine, not $processor" >&2
    status=1
    ;;
esac
exit $status
