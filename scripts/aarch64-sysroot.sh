#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Makes the AArch64 sysroot: unpacks Debian's arm64 packages of aarch64-sysroot.txt, and what they
# depend on, into .cache/aarch64-sysroot. It installs nothing and does not need root: apt works in a
# separate folder with this machine's sources (or the Debian mirror in DEBIAN_MIRROR) and verifies
# signatures and hashes as usual. The sysroot is moved into place when it is complete, together with
# the list it was made from; if the list changes, the script makes it again.
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
mirror_apt update || true  # one of several sources may be down; the next step notices if it matters
# shellcheck disable=SC2086 # split the list on purpose
mirror_apt install --yes --download-only --no-install-recommends $packages ||
    fail "$(grep -m 1 '^E:' "$work/log"); name a Debian mirror that has arm64:" \
        "make aarch64 DEBIAN_MIRROR=http://HOST/debian"

for package in "$work"/archives/*.deb; do
    dpkg-deb --extract "$package" "$work/root"
done
# Absolute links would point outside the sysroot.
find "$work/root" -type l -lname '/*' | while read -r link; do
    target=$work/root$(readlink "$link")
    ln -sfn "$(realpath -ms --relative-to="$(dirname "$link")" "$target")" "$link"
done
echo "$packages" >"$work/root/packages"
rm -rf "$sysroot"
mv "$work/root" "$sysroot"
rm -rf "$work"
