#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that scripts/packages.txt lists and this machine lacks. Says what it
# does; silent when nothing is missing. Needs root, or sudo, only then.
set -eu

list="$(dirname "$0")/packages.txt"
missing=
for package in $(grep -v '^#' "$list"); do
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
