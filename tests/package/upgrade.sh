#!/usr/bin/env bash
# upgrade.sh WORK PROGRAMS [EMULATOR...]: a real upgrade of one file with the tools in the directory PROGRAMS, whose
# traces stay in WORK. Shows the files after each pass, and where the lines of the log come from.
set -euo pipefail

work=$1
programs=$2
emulator=("${@:3}")
log=$work/log/TarnFramework_upgrade.log
export VLOGGER_DIRECTORY=$work/log
unset VLOGGER_STDERR

fail() {
    printf 'FAILED: %s\n' "$*"
    if [[ -e $log ]]; then cat "$log"; fi
    exit 1
}

make_package() {
    mkdir -p "$work/package/Common/bin" "$work/target"
    printf '[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBinFiles=%s\n[BinFiles]\nf1=bin/tool\n' \
        "$work/target" >"$work/package/filelist.ini"
    echo new >"$work/package/Common/bin/tool"
    echo old >"$work/target/tool"
}

run() {  # PROGRAM ARGUMENT...
    "${emulator[@]}" "$programs/$1" "${@:2}" >"$work/output" 2>&1 || fail "$*: $(cat "$work/output")"
}

# vfilelist tells on its standard output how it is used, the tool in its log.
show_help() {
    run vfilelist --help
    grep -q rollback "$work/output" || fail "vfilelist --help does not tell what it can do"
    "${emulator[@]}" "$programs/VCopyFileListIni" --help >"$work/output" 2>&1 || true
    grep -q 'Usage: .*<operator>' "$log" || fail "VCopyFileListIni --help does not tell what it can do"
}

upgrade() {
    run vfilelist check "$work/package/filelist.ini"
    run VCopyFileListIni -rename "$work/package/filelist.ini"
    [[ $(cat "$work/target/tool.bak") == old && ! -e $work/target/tool ]] || fail "-rename made no backup"
    run VCopyFileListIni -copy "$work/package/filelist.ini"
    [[ $(cat "$work/target/tool") == new ]] || fail "-copy did not bring the new file"
    run vfilelist verify "$work/package/filelist.ini" --expect copied
    run VCopyFileListIni -clean "$work/package/filelist.ini"
    [[ $(ls "$work/target") == tool ]] || fail "-clean left the backup"
    run vfilelist verify "$work/package/filelist.ini" --expect cleaned
}

# The same in one step, back, and there again. What belongs to the open upgrade stays in WORK as well.
upgrade_at_once() {
    echo newer >"$work/package/Common/bin/tool"
    run vfilelist upgrade "$work/package/filelist.ini" --state "$work/state"
    [[ $(cat "$work/target/tool" "$work/target/tool.bak") == newer$'\n'new ]] || fail "upgrade did not bring the file"
    run vfilelist rollback --state "$work/state"
    [[ $(cat "$work"/target/*) == new ]] || fail "rollback did not bring the old file back"
    run vfilelist upgrade "$work/package/filelist.ini" --state "$work/state"
    run vfilelist commit --state "$work/state"
    [[ $(cat "$work"/target/*) == newer ]] || fail "commit did not keep the new file alone"
}

# Whoever reads logs relies on it: the names of the sources begin with BaseAPI/, wherever the packages were built.
check_log() {
    grep -q 'Successfully completed' "$log" || fail "the log does not tell of success"
    if grep -vE '\(BaseAPI/VFileSys/src/[A-Za-z/]+\.cpp:[0-9]+\)$' "$log" >"$work/output"; then
        fail "lines of the log come from elsewhere than BaseAPI/: $(cat "$work/output")"
    fi
}

make_package
show_help
upgrade
upgrade_at_once
check_log
printf '%s lines logged, each from BaseAPI/\n' "$(wc -l <"$log")"
