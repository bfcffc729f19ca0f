#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The guard of the binary interface, on both processors: abi.sh check | reason | accept
#
# A built library is described (symbols, the types that they reach, sizes, offsets, virtual slots)
# and the description is compared with the accepted one in abi/<processor>.abi.
#
#   check   says what differs and what that means for player binaries built before; 1 if anything
#           does, 0 if nothing, 2 if that cannot be told
#   reason  whether the environment gives a REASON, which accept needs
#   accept  takes what is built as the accepted interface, in a commit of its own with the reason
set -eu

cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "abi: $*" >&2
    exit 2
}

build_of() {
    case $1 in
        x86_64) echo build/release ;;
        aarch64) echo build/aarch64 ;;
    esac
}

# describe PROCESSOR: its library's description into $work. Where this tree lies is taken out of the
# debug information, since abidw orders by paths, and only folder and name are kept of source files:
# a tree gives the same text wherever it lies.
describe() {
    library=$(build_of "$1")/lib/libkorvane_tunnelrenderer.so
    [ -r "$library" ] || fail "$library is missing; 'make abi' builds it"
    for tool in abidw debugedit; do
        command -v $tool >/dev/null ||
            fail "$tool is missing; install it with: scripts/install-deps.sh abi"
    done
    cp "$library" "$work/library.so"
    debugedit --base-dir="$PWD" --dest-dir=/ "$work/library.so"
    abidw --suppressions abi/suppressions.ini --exported-interfaces-only --type-id-style hash \
        --no-comp-dir-path --no-corpus-path --no-show-locs --no-elf-needed --no-parameter-names \
        --no-write-default-sizes --out-file "$work/raw" "$work/library.so" ||
        fail "abidw cannot read $library (see above)"
    grep -q "<class-decl name='VideoTunnelRenderer' size-in-bits=" "$work/raw" ||
        fail "$library has no debug information to describe it by; build it with a preset"
    sed -e "s|path='[^']*/\([^/']*/[^/']*\)'|path='\1'|" \
        -e '1a <!-- SPDX-License-Identifier: Apache-2.0 -->' "$work/raw" >"$work/$1.abi"
}

# compare PROCESSOR: 1 when its description is not the accepted one, with the difference and what it
# means. A type is reported once, also where abidiff thinks the change harmless; its own verdict on
# old binaries comes from the bits of its exit status.
compare() {
    accepted=abi/$1.abi
    if ! [ -s "$accepted" ]; then
        echo "abi: $1: $accepted is missing; restore it (git checkout -- abi)"
        return 1
    fi
    bits=0
    abidiff --leaf-changes-only --harmless "$accepted" "$work/$1.abi" >"$work/report" || bits=$?
    verdict=0
    abidiff "$accepted" "$work/$1.abi" >/dev/null || verdict=$?
    [ $(((bits | verdict) & 3)) -eq 0 ] || fail "abidiff cannot compare $accepted (see above)"
    if [ "$bits" -eq 0 ]; then
        echo "abi: $1: as accepted, $(grep -c '<elf-symbol ' "$accepted") symbols"
        return 0
    fi
    echo "abi: $1: differs from $accepted:"
    sed -e '/summary:/d' -e '/are member function changes:$/d' -e '/./s/^/    /' "$work/report"
    if [ $((verdict & 8)) -ne 0 ]; then
        echo "  Player binaries built before BREAK: a symbol that they call is gone, or the table"
        echo "  of virtual slots, which they call through and may extend, is another. Keep the old"
        echo "  as it was and add the new beside it, exported and not virtual."
    elif [ "$verdict" -ne 0 ] && grep -Eq '[1-9][0-9]* (Removed|Changed|leaf types? changed)' \
        "$work/report"; then
        echo "  Player binaries built before MAY BREAK: a size, an offset or a result above is not"
        echo "  what they were compiled for. Those that take their renderer from the factory do not"
        echo "  notice members; those that make one themselves do. Put new members last, and leave"
        echo "  results and records as they were."
    else
        echo "  Player binaries built before keep running: nothing that they use is gone or moved."
    fi
    return 1
}

# Information, once a change was accepted: how far the class is from what 1.0 players saw.
compare_with_1_0() {
    build=$(build_of "$1")
    [ -x "$build/bin/abi_player_1_0" ] ||
        fail "$build/bin/abi_player_1_0 is missing; 'make abi' builds it"
    if ! abicompat --weak-mode --suppressions abi/suppressions.ini "$build/bin/abi_player_1_0" \
        "$build/lib/libkorvane_tunnelrenderer.so" >"$work/report"; then
        echo "abi: $1: accepted since 1.0, of what its players see (one of them runs in the tests):"
        grep -E 'type size changed|offset.* changed|voffset|at offset|vtable' "$work/report" |
            sed 's/^ */    /; s/ at [A-Za-z]*\.h:[0-9:]*//' | sort -u
    fi
}

require_reason() {
    [ -n "$(printf %s "${REASON-}" | tr -d '[:space:]')" ] ||
        fail "say why: make abi-accept REASON='what changed, and why old players bear it'"
}

check() {
    status=0
    lists_hold=yes
    for processor in x86_64 aarch64; do
        describe $processor
        if ! tests/renderer/check_symbols.sh "$library"; then
            echo "abi: $processor: the lists of symbols in tests/renderer no longer hold (above);" \
                "change exports.txt and imports.txt together with the code, if it is meant"
            lists_hold=no
            status=1
        fi
        if compare $processor; then
            compare_with_1_0 $processor
        else
            status=1
        fi
    done
    return $status
}

case ${1-} in
    check)
        check && exit 0
        echo "If all of this is meant: make abi-accept REASON='why'. How to read it: abi/README.md"
        exit 1
        ;;
    reason) require_reason ;;
    accept)
        require_reason
        if check >"$work/difference"; then
            echo "abi: nothing to accept, the interface is the accepted one"
            exit 0
        fi
        cat "$work/difference"
        [ $lists_hold = yes ] || fail "mend the lists first, then accept"
        cp "$work/x86_64.abi" "$work/aarch64.abi" abi/
        {
            echo "Accept a changed binary interface"
            echo
            printf '%s\n' "$REASON" | fold -s -w 72 | sed 's/ *$//'
        } >"$work/message"
        git add -- abi/x86_64.abi abi/aarch64.abi
        git commit --quiet --file "$work/message" -- abi/x86_64.abi abi/aarch64.abi
        echo "abi: accepted in commit $(git rev-parse --short HEAD), which holds the two" \
            "descriptions alone; commit what changed the interface as well"
        ;;
    *) fail "'${1-}' is no command; there are check, reason and accept" ;;
esac
