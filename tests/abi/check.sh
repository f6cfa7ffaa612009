#!/usr/bin/env bash
# check.sh LIBRARY HEADERS [--publish]: the binary interface of libVFileSys.so (names, types, sizes, offsets) is the
# one of tests/abi/VFileSys.abi, which programs that are linked already rely on. The library needs its debug
# information. --publish makes the library's interface the new baseline.
set -euo pipefail
export LC_ALL=C

here=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
baseline=$here/VFileSys.abi
now=$(mktemp)
trap 'rm -f "$now"' EXIT

# Without what differs between machines and builds: places of files, the processor.
abidw --no-architecture --no-corpus-path --no-comp-dir-path --no-show-locs --drop-private-types --headers-dir "$2" \
    --exported-interfaces-only --out-file "$now" "$1"
if [[ ${3:-} == --publish ]]; then
    cp "$now" "$baseline"
    printf '%s holds the interface of %s now.\n' "$baseline" "$1"
elif abidiff --no-show-locs "$baseline" "$now"; then
    printf 'The binary interface is that of the baseline: %s functions.\n' "$(grep -c '<elf-symbol .*func-type' "$now")"
else
    printf "FAILED: the binary interface differs. If that is meant: %s %s %s --publish\n" "$0" "$1" "$2"
    exit 1
fi
