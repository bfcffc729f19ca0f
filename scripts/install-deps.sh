#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages of scripts/packages.txt and of scripts/packages-NAME.txt for each NAME:
#   install-deps.sh [NAME...]
# Prints what it installs. If nothing is missing it prints nothing and needs neither root nor sudo.
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
    # Node.js packages from elsewhere bring npm too.
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
        echo "install-deps: packages are missing; run as root: apt-get install$missing" >&2
        exit 2
    fi
    run=sudo
fi
echo "Installing Debian packages:$missing"
export DEBIAN_FRONTEND=noninteractive
$run apt-get update -qq
# shellcheck disable=SC2086 # split the list on purpose
$run apt-get install -y -qq --no-install-recommends $missing >/dev/null
