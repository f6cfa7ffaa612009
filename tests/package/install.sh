#!/usr/bin/env bash
# install.sh SOURCE PLACE: makes a clean Debian of this machine's release, in a directory that is gone afterwards, and
# installs, uses and removes the packages of PLACE there. As root.
set -euo pipefail

source=$(readlink -f "$1")
place=$(readlink -f "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# What the root gets: the packages, programs outside of the project, and what tries them.
collect() {
    mkdir "$work/trial"
    cp "$place"/*.deb "$work/trial"
    rm "$work"/trial/*-dbgsym_*.deb
    cp -r "$source/tests/consumer/project" "$source"/tests/package/{inside.sh,upgrade.sh,LibraryLog.cpp} "$work/trial"
}

collect
# shellcheck disable=SC2016  # mmdebstrap's shell sets $1
"$source/tests/package/clean_debian.sh" '' --customize-hook="copy-in $work/trial /" \
    --customize-hook='chroot "$1" /trial/inside.sh'
