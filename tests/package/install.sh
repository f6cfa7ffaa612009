#!/usr/bin/env bash
# install.sh SOURCE PLACE: makes a clean Debian of this machine's release, in a directory that is gone afterwards, and
# installs, uses and removes the packages of PLACE there. As root.
set -euo pipefail

source=$(readlink -f "$1")
place=$(readlink -f "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# What this machine installs from, and how it gets there.
this_machines_sources() {
    # shellcheck disable=SC2016  # apt's variables, not the shell's
    apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 'Origin: Debian' |
        sort -u
}
this_machines_proxies() { apt-config dump | grep -E '^Acquire::[a-z]+::Proxy ' || true; }

# What the root gets: the packages, programs outside of the project, and what tries them.
collect() {
    mkdir "$work/trial"
    cp "$place"/*.deb "$work/trial"
    rm "$work"/trial/*-dbgsym_*.deb
    cp -r "$source/tests/consumer/project" "$source"/tests/package/{inside.sh,upgrade.sh,LibraryLog.cpp} "$work/trial"
}

collect
this_machines_sources >"$work/sources.list"
[[ -s $work/sources.list ]] || { echo "FAILED: apt knows no sources of Debian; run apt-get update"; exit 1; }
this_machines_proxies >"$work/apt.conf"
# shellcheck disable=SC2016  # mmdebstrap's shell sets $1
TMPDIR=${TMPDIR:-/tmp} mmdebstrap --quiet --variant=minbase --format=null --dpkgopt=force-unsafe-io \
    --aptopt="$work/apt.conf" --customize-hook="copy-in $work/trial /" \
    --customize-hook='chroot "$1" /trial/inside.sh' '' - - <"$work/sources.list"
