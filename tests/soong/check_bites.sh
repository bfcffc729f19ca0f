#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The comparison with CMake must see each kind of difference:
# check_bites.sh CHECK WORK_DIR ANDROID_BP
# Each row changes a copy of Android.bp and says what must be complained of.
set -eu

check=$1
work=$2
blueprint=$3
changed=$work/changed.bp
mkdir -p "$work"
status=0

# expect TEXT: the check finds fault with the copy, and says so.
expect() {
    found=0
    output=$("$check" "$work/cmake" "$changed" 2>&1) || found=$?
    if [ "$found" -ne 1 ] || ! printf '%s\n' "$output" | grep -qF -e "$1"; then
        printf 'expected exit status 1 and "%s", got %s and:\n%s\n' "$1" "$found" "$output" >&2
        status=1
    fi
}

# module, property, bpmodify's -a (add) or -r (remove), value, what the check says
while read -r module property action value text; do
    bpmodify -m "$module" -property "$property" "$action" "$value" "$blueprint" >"$changed"
    expect "$text"
done <<END
korvane_tunnelrenderer_defaults srcs -r frac/PatternKeeper.cpp built by CMake but not in Android.bp
libkorvane_tv_clock srcs -a tv/clock/Lost.cpp is in Android.bp but not built by CMake
korvane_tunnelrenderer_defaults cppflags -a -fstrict-enums Android.bp compiles with -fstrict-enums
korvane_defaults cflags -r -Wshadow CMake compiles with -Wshadow, Android.bp does not
libkorvane_tunnelrenderer shared_libs -r libui CMake links with libui, Android.bp does not
korvane_player_defaults shared_libs -a libcurl Android.bp links with libcurl, CMake does not
libkorvane_tunnelrenderer_headers export_include_dirs -a player Android.bp includes from player
END

# What is no list, bpmodify cannot change: from, to, what the check says
while IFS='|' read -r from to text; do
    sed "s|$from|$to|" "$blueprint" >"$changed"
    expect "$text"
done <<END
c++17|c++20|CMake compiles with -std=c++17, Android.bp does not
rtti: false|rtti: true|CMake compiles with -fno-rtti, Android.bp does not
renderer/exports.map|renderer/other.map|CMake links with version script renderer/exports.map
stem: "libvideotunnel"|stem: "libtunnel"|the file is called libvideotunnel by CMake, libtunnel
device/korvane_tunnelrenderer.rc|device/lost.rc|libkorvane_tunnelrenderer: there is no device/lost.rc
name: "libkorvane_tv_ui"|name: "libother"|Android.bp has no such module
END
exit $status
