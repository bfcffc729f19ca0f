#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that scripts/packages.txt and, for each NAME, scripts/packages-NAME.txt
# list and this machine lacks: install-deps.sh [NAME...]. Says what it does; silent when nothing is
# missing. Needs root, or sudo, only then.
set -eu

scripts=$(dirname "$0")
packages=$(grep -hv '^#' "$scripts/packages.txt")
for name; do
    if [ ! -r "$scripts/packages-$name.txt" ]; then
        echo "install-deps: no list '$name'; there are:" \
            "$(cd "$scripts" && echo packages-*.txt | sed 's/packages-//g; s/\.txt//g')" >&2
        exit 2
    fi
    packages="$packages $(grep -v '^#' "$scripts/packages-$name.txt")"
done
missing=
for package in $packages; do
    # npm also comes with Node.js packages that are not Debian's; the command is what counts.
    if [ "$package" = npm ] && command -v npm >/dev/null 2>&1; then
        continue
    fi
    status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$status" = installed ] || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

run=
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null 2>&1; then
        echo "install-deps: these packages are missing; as root: apt-get install$missing" >&2
        exit 2
    fi
    run=sudo
fi
echo "Installing Debian packages:$missing"
export DEBIAN_FRONTEND=noninteractive
$run apt-get update -qq
# shellcheck disable=SC2086 # the list is meant to be split
$run apt-get install -y -qq --no-install-recommends $missing >/dev/null
