#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Makes the AArch64 sysroot once: the packages of aarch64-sysroot.txt and what they depend on, as
# Debian builds them for arm64, unpacked into .cache/aarch64-sysroot. Nothing is installed on this
# machine and nobody needs to be root: apt works in a folder of its own, on this machine's sources
# (or on the Debian mirror that DEBIAN_MIRROR names), and checks signatures and sums as always. The
# sysroot is moved into place whole, with the list that it was made from; another list makes it
# anew.
set -eu

scripts=$(cd "$(dirname "$0")" && pwd)
cache=$(dirname "$scripts")/.cache
sysroot=$cache/aarch64-sysroot
packages=$(grep -v '^#' "$scripts/aarch64-sysroot.txt")

fail() {
    echo "aarch64-sysroot: $*" >&2
    exit 2
}

if [ -r "$sysroot/packages" ] && [ "$(cat "$sysroot/packages")" = "$packages" ]; then
    exit 0
fi
command -v apt-get >/dev/null || fail "apt-get is missing; run this on Debian 12"

work=$cache/making-aarch64-sysroot
rm -rf "$work"
mkdir -p "$work/state/lists/partial" "$work/archives/partial" "$work/root"
: >"$work/state/status"

apt() {
    apt-get -qq -o APT::Architecture=arm64 -o APT::Architectures=arm64 \
        -o Dir::State="$work/state" -o Dir::State::status="$work/state/status" \
        -o Dir::Cache="$work" -o Dir::Cache::archives="$work/archives" "$@" >>"$work/log" 2>&1
}

if [ -n "${DEBIAN_MIRROR:-}" ]; then
    # shellcheck disable=SC1091 # part of every Debian
    release=$(. /etc/os-release && echo "$VERSION_CODENAME")
    keys=/usr/share/keyrings/debian-archive-keyring.gpg
    echo "deb [signed-by=$keys] $DEBIAN_MIRROR $release main" >"$work/mirror.list"
    mirror_apt() {
        apt -o Dir::Etc::sourcelist="$work/mirror.list" -o Dir::Etc::sourceparts=- "$@"
    }
else
    mirror_apt() { apt "$@"; }
fi

echo "aarch64-sysroot: fetching Debian's arm64 packages once (about 100 MB)" >&2
mirror_apt update || true  # one source of several may be away; the next step finds what is missing
# shellcheck disable=SC2086 # the list is meant to be split
mirror_apt install --yes --download-only --no-install-recommends $packages ||
    fail "$(grep -m 1 '^E:' "$work/log"); name a Debian mirror that has arm64:" \
        "make aarch64 DEBIAN_MIRROR=http://HOST/debian"

for package in "$work"/archives/*.deb; do
    dpkg-deb --extract "$package" "$work/root"
done
# An absolute link would lead out of the sysroot.
find "$work/root" -type l -lname '/*' | while read -r link; do
    target=$work/root$(readlink "$link")
    ln -sfn "$(realpath -ms --relative-to="$(dirname "$link")" "$target")" "$link"
done
echo "$packages" >"$work/root/packages"
rm -rf "$sysroot"
mv "$work/root" "$sysroot"
rm -rf "$work"
