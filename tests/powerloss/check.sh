#!/usr/bin/env bash
# check.sh BUILD [OPTION...]: what power cuts leave of upgrades, on the file systems that the kernel has and
# on the weakest disk that POSIX allows; the options are those of check.py. Needs root, /dev/fuse and loop
# devices. Runs in namespaces of its own: with its last process every mount and loop device is gone.
set -euo pipefail
here=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")

if [[ ${1:-} != --inside ]]; then
    if ((EUID != 0)) || [[ ! -c /dev/fuse ]] || ! losetup --find >/dev/null 2>&1; then
        echo "skipped: this needs root, /dev/fuse and loop devices"
        exit 0
    fi
    scratch=$(mktemp -d)
    trap 'rmdir "$scratch"' EXIT
    unshare --mount --pid --mount-proc --fork --kill-child "${BASH_SOURCE[0]}" --inside "$scratch" "$@"
    exit
fi
scratch=$2 build=$(readlink -f "$3")
shift 3

mount -t tmpfs -o size=8G tmpfs "$scratch"
programs=$scratch/programs
mkdir "$programs"
for file in BaseAPI/V{FileList/vfilelist,CopyFileListIni/VCopyFileListIni,FileSys/libVFileSys.so} \
    platform/lib{VLogger,VIni,safestr}.so; do
    strip -o "$programs/${file##*/}" "$build/$file"
done
c++ -std=c++17 -O1 -shared -fPIC -o "$programs/disk_calls.so" "$here/DiskCalls.cpp"
# What is under test finds nothing but what it has kept itself.
mount -t tmpfs tmpfs "$build"

export PYTHONDONTWRITEBYTECODE=1
"$here/weak_check.py" "$programs" "$scratch/weak" &
checks=($!)
for file_system in ext4 xfs btrfs; do
    modprobe --quiet "$file_system" 2>/dev/null || true
    if ! grep -qw "$file_system" /proc/filesystems; then
        echo "skipped: $file_system, which this kernel does not have"
        continue
    fi
    "$here/check.py" "$@" "$file_system" "$programs" "$scratch/$file_system" &
    checks+=($!)
done
status=0
for check in "${checks[@]}"; do wait "$check" || status=1; done
exit "$status"
