#!/usr/bin/env bash
# check.sh BUILD: what a power cut leaves of an upgrade. The target directory lies on a file system in an image;
# the image as it is at some moment, without what the kernel still keeps to itself, is what would be left. Needs root
# and a loop device. Runs in a mount namespace of its own.
set -euo pipefail

if [[ ${1:-} != --inside ]]; then
    build=$(readlink -f "$1")
    if ((EUID != 0)) || ! losetup --find >/dev/null 2>&1; then
        echo "skipped: this needs root and a loop device"
        exit 0
    fi
    exec unshare --mount "$(readlink -f "${BASH_SOURCE[0]}")" --inside "$build"
fi

tool=$2/BaseAPI/VCopyFileListIni/VCopyFileListIni
vfilelist=$2/BaseAPI/VFileList/vfilelist
scratch=$(mktemp -d)
export VLOGGER_DIRECTORY=$scratch/log
trap 'umount -q "$scratch/disk" || true; umount -q "$scratch/left" || true; rm -rf "$scratch"' EXIT

fail() {
    printf 'FAILED: %s\n' "$*"
    exit 1
}

# A package of five files, an old release of them on a fresh file system.
begin() {
    local i
    rm -rf "$scratch/pkg"
    mkdir -p "$scratch/pkg/Common" "$scratch/disk" "$scratch/left"
    truncate -s 32M "$scratch/image"
    mkfs.ext4 -q -F "$scratch/image"
    mount -o loop "$scratch/image" "$scratch/disk"
    for i in 1 2 3 4 5; do
        printf 'old %s' "$i" >"$scratch/disk/file$i"
        seq "$((i * 3000))" >"$scratch/pkg/Common/file$i"
    done
    printf '[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBin=%s\n[Bin]\nf=file1,file2,file3,file4,file5\n' \
        "$scratch/disk" >"$scratch/pkg/filelist.ini"
    sync -f "$scratch/disk"
}

pass() { "$tool" "$1" "$scratch/pkg/filelist.ini" || fail "$1 ended with $?"; }

# The power goes: the disk as it is comes up again in the place of the one that was there.
cut_power() {
    cp "$scratch/image" "$scratch/image.left"
    umount "$scratch/disk"
    mount -o loop "$scratch/image.left" "$scratch/disk"
}

end() {
    umount "$scratch/disk"
    rm -f "$scratch/image" "$scratch/image.left"
}

count_old() {
    local i count=0
    for i in 1 2 3 4 5; do
        if [[ $(cat "$scratch/disk/file$i" 2>/dev/null) == "old $i" ]] ||
            [[ $(cat "$scratch/disk/file$i.bak" 2>/dev/null) == "old $i" ]]; then
            count=$((count + 1))
        fi
    done
    echo "$count"
}

count_new() {
    local i count=0
    for i in 1 2 3 4 5; do
        if cmp -s "$scratch/pkg/Common/file$i" "$scratch/disk/file$i"; then count=$((count + 1)); fi
    done
    echo "$count"
}

# The runbook's way.
begin; pass -rename; pass -copy; sync -f "$scratch/disk"; cut_power
(($(count_new) == 5)) || fail "after -copy and sync only $(count_new) of 5 new files are whole"
"$vfilelist" verify "$scratch/pkg/filelist.ini" >/dev/null || fail "verify does not say that all is copied"
end
begin; pass -rename; pass -copy; sync -f "$scratch/disk"; pass -clean; cut_power
(($(count_new) == 5)) || fail "after sync and -clean only $(count_new) of 5 new files are whole"
end
echo "With sync before -clean: 5 of 5 new files are whole after a power cut behind -copy and behind -clean."

# Without sync the old files are still there, and verify says the truth of the new ones.
begin; pass -rename; pass -copy; cut_power
old=$(count_old) new=$(count_new)
((old == 5)) || fail "only $old of 5 old files are left"
status=0
"$vfilelist" verify "$scratch/pkg/filelist.ini" >/dev/null || status=$?
((new == 5 || status == 1)) || fail "verify says $status, but $new of 5 new files are whole"
# A new file that holds garbage beside its backup is in the way.
for i in 1 2 3 4 5; do
    if [[ -e $scratch/disk/file$i.bak ]] && ! cmp -s "$scratch/pkg/Common/file$i" "$scratch/disk/file$i"; then
        rm -f "$scratch/disk/file$i"
    fi
done
"$vfilelist" rollback "$scratch/pkg/filelist.ini" >/dev/null || fail "the rollback fails"
(($(count_old) == 5)) || fail "the rollback brings back only $(count_old) of 5 files"
end
echo "Without sync, behind -copy: $new of 5 new files whole, 5 of 5 old ones there; verify says $status; rollback brings all back."

# Without sync before -clean nothing is promised: this is only told.
begin; pass -rename; pass -copy; pass -clean; cut_power
echo "Without sync, behind -clean: $(count_new) of 5 new files whole, $(count_old) of 5 old ones there."
end
