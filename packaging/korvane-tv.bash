# SPDX-License-Identifier: Apache-2.0
# bash completion for korvane-tv.
#
# Options, and which of them take a value, are read from the program's help, so that they are those
# of the installed version. Only suggestions for values are listed here.

# Files by pattern, whatever the case of their letters; readline adds folders.
_korvane_tv_files() {
    compopt -o filenames -o plusdirs
    mapfile -t COMPREPLY < <(
        shopt -s extglob nocasematch
        compgen -f -X "!$1" -- "$2"
    )
}

# Names of installed scenarios: share/korvane-tv/scenarios beside the program's folder.
_korvane_tv_scenarios() {
    local program
    program=$(readlink -f "$(type -P "$1")")
    find "${program%/*/*}/share/korvane-tv/scenarios" -maxdepth 1 -name '*.toml' 2>/dev/null |
        sed 's|.*/||; s|\.toml$||'
}

_korvane_tv() {
    local program=$1 current=$2 previous=$3
    local command='' help valued words='' word
    local media='*.@(mp4|m4v|mov|mkv|webm|avi|flv|wmv|ogv|3gp|mpg|mpeg|vob|ts|m2ts)'
    ((COMP_CWORD == 1)) || command=${COMP_WORDS[1]}
    COMPREPLY=()

    # --clock=real is three words to readline.
    if [[ $current == = ]]; then
        current=
    elif [[ $previous == = ]]; then
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    help=$("$program" ${command:+"$command"} --help 2>/dev/null) || return
    valued=" $(sed -nE 's/^  ((-[a-z]),)?(--[a-z-]+) [A-Z].*/\2 \3/p' <<<"$help" | tr '\n' ' ') "

    case $command:$previous in
        *:--clock) words="virtual real" ;;
        play:--rate) words="23.976 24 25 29.97 30 50 59.94 60 120" ;;
        play:--expect)
            words="even pattern= pattern_within= slips= unexpected= unexplained= dwell= frames= shown=all
                dropped= dropped_late= longest_drop_run= offset_median= offset_worst= end=
                first_frame_within= seek_within= resume_within= underflows= reanchors="
            compopt -o nospace
            ;;
        play:--prop)
            words="vendor.korvane.loglevels= vendor.tunerpassthrough.renderfreeRun="
            compopt -o nospace
            ;;
        run:--events | run:--trace | run:--record | *:--report) compopt -o dirnames ;;
        play:--strip-at) words="break frame:" ;;
        explore:--strategy) words="random pct exhaustive" ;;
        *:--trace | *:--csv | *:--ledger | *:--json | *:--events | *:--record | *:--strip | \
            *:--library | *:--against)
            compopt -o default
            ;;
        *)
            if [[ $valued == *" $previous "* ]]; then
                return # a number or a time
            elif [[ $current == -* ]]; then
                words=$(sed -nE 's/^  (-[a-z],)?(--[a-z-]+)( .*)?$/\2/p' <<<"$help")
            elif [[ -z $command ]]; then
                words="play run list compare explore"
            elif [[ $command == play ]]; then
                _korvane_tv_files "$media" "$current"
            elif [[ $command == run || $command == list || $command == explore ]]; then
                _korvane_tv_files '*.toml' "$current"
                words=$(_korvane_tv_scenarios "$program")
            elif [[ $command == compare ]]; then
                compopt -o default
            fi
            ;;
    esac
    for word in $words; do
        [[ $word != "$current"* ]] || COMPREPLY+=("$word")
    done
} && complete -F _korvane_tv korvane-tv
