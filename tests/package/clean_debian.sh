#!/usr/bin/env bash
# clean_debian.sh PLACE OPTION...: makes a clean Debian of this machine's release with mmdebstrap and its options: in the
# directory PLACE, or nowhere when it is empty. As root.
set -euo pipefail

# What this machine installs from, and how it gets there.
this_machines_sources() {
    # shellcheck disable=SC2016  # apt's variables, not the shell's
    apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 'Origin: Debian' |
        sort -u
}
this_machines_proxies() { apt-config dump | grep -E '^Acquire::[a-z]+::Proxy ' || true; }

format=directory
if [[ -z $1 ]]; then format=null; fi
sources=$(this_machines_sources)
[[ -n $sources ]] || { echo "FAILED: apt knows no sources of Debian; run apt-get update"; exit 1; }
TMPDIR=${TMPDIR:-/tmp} mmdebstrap --quiet --variant=minbase --format="$format" --dpkgopt=force-unsafe-io \
    --aptopt=<(this_machines_proxies) "${@:2}" '' "${1:--}" - <<<"$sources"
