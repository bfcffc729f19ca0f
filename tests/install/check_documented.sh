#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The manual page and the completion know what the program's help lists: no option more or less, by
# command. And the completion offers what can stand at a place.
#   check_documented.sh KORVANE_TV PACKAGING_FOLDER SCRATCH_FOLDER
set -euo pipefail

program=$1
packaging=$2
scratch=$3
status=0

# shellcheck source=/dev/null
source "$packaging/korvane-tv.bash"
# Belongs to readline, which is not here.
# shellcheck disable=SC2317
compopt() { :; }

# Completions of the last of the words that follow, one a line.
complete_words() {
    COMP_WORDS=("$program" "$@")
    COMP_CWORD=$#
    _korvane_tv "$program" "${COMP_WORDS[$#]}" "${COMP_WORDS[$# - 1]}"
    ((${#COMPREPLY[@]} == 0)) || printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort
}

expect_same() {
    if ! diff -u --label "$1" --label "$2" <(printf '%s\n' "$3") <(printf '%s\n' "$4"); then
        status=1
    fi
}

long_options_of_help() {
    "$program" "$@" --help | grep -oE '^  (-[a-z],)?--[a-z-]+' | grep -oE -- '--.*' | LC_ALL=C sort
}

# The options below one heading of the page; -h is told once for all commands.
long_options_of_manual() {
    awk -v heading="$1" '/^\.S[hs] / { inside = $2 == heading } inside' "$packaging/korvane-tv.1" |
        sed -nE 's/^\.It Fl ([a-z] , )?(-[a-z-]+).*/-\2/p' | LC_ALL=C sort
}

expect_same "korvane-tv --help" "manual page" \
    "$(long_options_of_help)" "$(long_options_of_manual General)"
for command in play run list compare explore; do
    options=$(long_options_of_help "$command")
    expect_same "korvane-tv $command --help" "completion" \
        "$options" "$(complete_words "$command" --)"
    expect_same "korvane-tv $command --help" "manual page" \
        "$options" "$({ echo --help; long_options_of_manual "$command:"; } | LC_ALL=C sort)"
done

rm -rf "$scratch"
mkdir -p "$scratch/bin" "$scratch/share/korvane-tv/scenarios" "$scratch/folder"
ln "$program" "$scratch/bin/korvane-tv" 2>/dev/null || cp "$program" "$scratch/bin/korvane-tv"
touch "$scratch/share/korvane-tv/scenarios/installed-one.toml" \
    "$scratch/folder/own one.toml" "$scratch/folder/film.MKV" "$scratch/folder/notes.txt"
program=$scratch/bin/korvane-tv
cd "$scratch/folder"
while IFS='|' read -r words expected; do
    read -ra line <<<"$words"
    [[ $words != *' ' ]] || line+=('')
    expect_same "wanted for '$words'" "completion" \
        "${expected//,/$'\n'}" "$(complete_words "${line[@]}")"
done <<'TABLE'
p|play
play |film.MKV
play film.MKV --clock |real,virtual
play --clock = |real,virtual
play --clock = v|virtual
play --rate 59|59.94
play --prop vendor.k|vendor.korvane.loglevels=
play --peek f|film.MKV
play --seconds |
run |installed-one,own one.toml
run --jobs |
run -j |
run --verbose own|own one.toml
list |installed-one,own one.toml
nonsense |
TABLE
exit $status
