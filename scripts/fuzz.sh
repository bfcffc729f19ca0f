#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# fuzz.sh TIME JOBS: lets libFuzzer search with every target of tests/fuzz/, TIME in all (90s, 10m, 8h),
# JOBS at a time. Inputs that reach something new are kept in build/fuzz/corpus, those that fail in
# build/fuzz/found; a run goes on where the last one ended.
# fuzz.sh minimise TARGET: copies the few inputs of build/fuzz/corpus that reach what the tree's do not
# into tests/fuzz/corpus.
set -euo pipefail
cd "$(dirname "$0")/.."

targets=(renderer scenario options events media)

# The words of a language, from the files that use or read it.
words_of() {
    case $1 in
        scenario) cat scenarios/*.toml player/scenario/*File.cpp ;;
        options) cat player/command/CommandLine.cpp player/scenario/ExpectFile.cpp ;;
        events) cat player/report/Event*.cpp player/playback/DropReason.cpp ;;
    esac | grep -ohE '[-a-z_]{2,24}=?' | sort -u | sed 's/.*/"&"/' || true
}

# Sets: program, the folders of inputs, options.
prepare() {
    program=build/fuzz-asan/bin/fuzz_$1
    inputs=(build/fuzz/corpus/"$1" tests/fuzz/corpus/"$1")
    options=(-max_len=16384 -timeout=30 -rss_limit_mb=3000)
    mkdir -p "${inputs[0]}" build/fuzz/found
    case $1 in
        # libFuzzer's own thread and its alarm do not go with virtual time, which notices what hangs.
        renderer)
            program=build/fuzz/bin/fuzz_renderer
            options=(-max_len=1024 -len_control=0 -timeout=0 -rss_limit_mb=0)
            ;;
        scenario) inputs+=(scenarios) ;;
    esac
    words_of "$1" >"build/fuzz/$1.dict"
    if [ -s "build/fuzz/$1.dict" ]; then
        options+=(-dict="build/fuzz/$1.dict")
    fi
}

search() { # target, seconds
    prepare "$1"
    log=build/fuzz/$1.log
    if "$program" "${options[@]}" -max_total_time="$2" -print_final_stats=1 \
        -artifact_prefix="build/fuzz/found/$1-" "${inputs[@]}" >"$log" 2>&1; then
        echo "$1: $(sed -n 's/^Done \(.*\)/\1/p' "$log"), nothing found"
    else
        tail -n 40 "$log" >&2
        echo "$1: FAILED; $(sed -n 's/.*Test unit written to \(.*\)/\1/p' "$log"), once more: $program FILE" >&2
        return 1
    fi
}

case ${1-} in
    minimise)
        prepare "$2"
        kept=$(mktemp -d)
        find "${inputs[@]:1}" -maxdepth 1 -type f -exec cp -t "$kept" {} +
        "$program" "${options[@]}" -set_cover_merge=1 -use_counters=0 "$kept" "${inputs[0]}"
        for input in "$kept"/*; do
            [ -e "scenarios/${input##*/}" ] || cp -n "$input" "tests/fuzz/corpus/$2"
        done
        rm -r "$kept"
        ;;
    search)
        search "$2" "$3"
        ;;
    *[smh])
        case $1 in *h) unit=3600 ;; *m) unit=60 ;; *) unit=1 ;; esac
        seconds=$((${1%[smh]} * unit * $2 / ${#targets[@]}))
        printf '%s\n' "${targets[@]}" | xargs -P "$2" -I{} "$0" search {} "$seconds"
        ;;
    *)
        echo "usage: fuzz.sh TIME JOBS | minimise TARGET" >&2
        exit 2
        ;;
esac
