#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Dependencies point one way: each #include of a file of the tree leads to a room that the table
# below allows. A room is a folder of the tree, or of player/. Prints each other include by file and
# line; exit status 1 if there is one. Tests and benchmarks may include anything.
set -eu

cd "$(dirname "$0")/.."
git ls-files '*.h' '*.cpp' | grep -v -e '^tests/' -e '^bench/' -e '^abi/' |
    xargs grep -HnE '^[[:space:]]*#[[:space:]]*include' | awk -F: '
    # The room of a path, which is relative to the root: its folder, or two folders in player/.
    function room_of(path, parts) {
        if (split(path, parts, "/") < 2) return ""
        return parts[1] != "player" ? parts[1] : parts[3] != "" ? "player/" parts[2] : "player"
    }
    function allow(room, others) { allowed[room] = " " room " " others " " }
    BEGIN {
        allow("include", "")
        allow("platform", "include")
        allow("frac", "platform include")
        allow("mediasync", "platform include")
        allow("videotunnel", "platform include")
        allow("display", "platform include")
        allow("renderer", "frac mediasync videotunnel display platform include")
        allow("tv", "platform include")
        rooms = "tv platform include"
        count = split("base media playback report screen page compare scenario explore command", order, " ")
        for (i = 1; i <= count; ++i) {
            # Exploring compares with the decisions of the library, a header of pure functions.
            allow("player/" order[i], rooms (order[i] == "explore" ? " renderer" : ""))
            rooms = rooms " player/" order[i]
        }
        allow("player", rooms)
        allow("examples", "tv include")
    }
    {
        from = room_of($1)
        name = $0
        if (!sub(/^[^"<]*["<]/, "", name)) next  # names a macro
        sub(/[">].*/, "", name)
        to = name ~ /(^|\/)\.\.\// ? "a path with .." : room_of(name)
        # Names without a folder are found beside the file or in include/, others are not of the tree.
        if (index(allowed[from], " " to " ") || to !~ /^player|\.\./ && !(to in allowed)) next
        printf "%s:%s: %s must not include %s (\"%s\")\n", $1, $2, from, to, name
        found = 1
    }
    END { exit found }' >&2
