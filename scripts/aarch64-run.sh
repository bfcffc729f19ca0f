#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Runs a program of the AArch64 build on this machine: aarch64-run.sh PROGRAM [ARGUMENT...]
# The emulator finds the loader and the libraries in the sysroot.
set -eu

sysroot=$(dirname "$0")/../.cache/aarch64-sysroot
if ! command -v qemu-aarch64 >/dev/null; then
    echo "aarch64-run: qemu-aarch64 is missing; install it with:" \
        "scripts/install-deps.sh aarch64" >&2
    exit 2
fi
if [ ! -d "$sysroot" ]; then
    echo "aarch64-run: the sysroot is missing; make it with: scripts/aarch64-sysroot.sh" >&2
    exit 2
fi
exec qemu-aarch64 -L "$sysroot" "$@"
