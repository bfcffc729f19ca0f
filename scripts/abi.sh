#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Guards the binary interface on both processors: abi.sh check | reason | accept
#
# abidw describes each built library: symbols, the types that they reach, sizes, offsets, virtual slots.
# The description is compared with the accepted one in abi/<processor>.abi.
#
#   check   prints what differs and what that means for existing player binaries; exit status 0 if
#           nothing differs, 1 if something does, 2 if the comparison fails
#   reason  checks that the environment variable REASON is set, which accept needs
#   accept  commits the built interface as the accepted one, with the reason
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

# describe PROCESSOR: writes the description of its library into $work. The text must not depend on
# where this tree is, and abidw sorts by path: so the root of the tree is removed from the debug
# information, and of source paths only the last folder and the file name stay.
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

# compare PROCESSOR: returns 1 if its description differs from the accepted one, and prints the
# difference and what it means. The report names each type once, harmless changes included; abidiff's
# exit status says whether old binaries break.
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
        echo "  Existing player binaries BREAK: a symbol that they call is gone, or the table of"
        echo "  virtual slots that they call through has changed. Keep the old operations as they"
        echo "  were and add new ones as exported functions that are not virtual."
    elif [ "$verdict" -ne 0 ] && grep -Eq '[1-9][0-9]* (Removed|Changed|leaf types? changed)' \
        "$work/report"; then
        echo "  Existing player binaries MAY BREAK: a size, an offset or a result above has"
        echo "  changed. Members matter only to players that create a renderer without the factory."
        echo "  Put new members last, and leave results and records as they were."
    else
        echo "  Existing player binaries keep running: nothing that they use is gone or moved."
    fi
    return 1
}

# After a change was accepted: prints how far the class is from what players of 1.0 were built with.
compare_with_1_0() {
    build=$(build_of "$1")
    [ -x "$build/bin/abi_player_1_0" ] ||
        fail "$build/bin/abi_player_1_0 is missing; 'make abi' builds it"
    if ! abicompat --weak-mode --suppressions abi/suppressions.ini "$build/bin/abi_player_1_0" \
        "$build/lib/libkorvane_tunnelrenderer.so" >"$work/report"; then
        echo "abi: $1: accepted changes since 1.0 (the tests still run a player of 1.0):"
        grep -E 'type size changed|offset.* changed|voffset|at offset|vtable' "$work/report" |
            sed 's/^ */    /; s/ at [A-Za-z]*\.h:[0-9:]*//' | sort -u
    fi
}

require_reason() {
    [ -n "$(printf %s "${REASON-}" | tr -d '[:space:]')" ] ||
        fail "give a reason: make abi-accept REASON='what changed, and why old players still work'"
}

check() {
    status=0
    lists_hold=yes
    for processor in x86_64 aarch64; do
        describe $processor
        if ! tests/renderer/check_symbols.sh "$library"; then
            echo "abi: $processor: the library's symbols differ from tests/renderer (above);" \
                "if that is intended, change exports.txt and imports.txt with the code"
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
        echo "If all of this is intended: make abi-accept REASON='why'. abi/README.md explains the report."
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
        [ $lists_hold = yes ] || fail "correct the lists first, then accept"
        cp "$work/x86_64.abi" "$work/aarch64.abi" abi/
        {
            echo "Accept a changed binary interface"
            echo
            printf '%s\n' "$REASON" | fold -s -w 72 | sed 's/ *$//'
        } >"$work/message"
        git add -- abi/x86_64.abi abi/aarch64.abi
        git commit --quiet --file "$work/message" -- abi/x86_64.abi abi/aarch64.abi
        echo "abi: accepted in commit $(git rev-parse --short HEAD), which contains only the two" \
            "descriptions; commit the change of the interface too"
        ;;
    *) fail "unknown command '${1-}'; use check, reason or accept" ;;
esac
