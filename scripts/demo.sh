#!/usr/bin/env bash
# demo.sh BUILD: an upgrade from beginning to end, one that fails, and a tour of the library, with what was built
# in BUILD: real files, the real logger and INI reader, in a temporary directory that is gone at the end.
set -euo pipefail
# shellcheck source=scripts/look.sh
. "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/look.sh"

build=$(readlink -f "$1")
tool=$build/BaseAPI/VCopyFileListIni/VCopyFileListIni
vfilelist=$build/BaseAPI/VFileList/vfilelist
work=$(mktemp -d "${TMPDIR:-/tmp}/vfilesys-demo-XXXXXX")
trap 'rm -rf "$work"' EXIT
export VLOGGER_DIRECTORY=$work/log
unset VLOGGER_STDERR
log=$VLOGGER_DIRECTORY/TarnFramework_upgrade.log
umask 022

package=$work/package  # what is to be installed: a file list, and the new files in Common/
app=$work/app          # where the release is installed
before=$work/before    # a copy of the release, to compare with

# ---------------------------------------------------------------------------------------------- showing

tell() { printf '%s\n' "$@"; }
command_line() { printf '%s$ %s%s\n' "$bold" "${*//"$work/"/}" "$plain"; }

# The files of a directory as mode, size, beginning of the SHA-256 sum, and path; backups are dimmed.
show_tree() {  # DIRECTORY
    local path colour
    find "$1" -type f -printf '%P\n' | sort | while IFS= read -r path; do
        colour=''
        if [[ $path == *.bak ]]; then colour=$dim; fi
        printf '  %s%s %7s  %.8s  %s%s\n' "$colour" "$(stat -c %A "$1/$path")" "$(stat -c %s "$1/$path")" \
            "$(sha256sum <"$1/$path")" "$path" "$plain"
    done
}

show_app() {
    tell "app/"
    show_tree "$app"
}

# What a pass wrote to the upgrade log: level, function and text, with short paths; errors stand out.
show_log() {  # LINES-LOGGED-BEFORE
    [[ -e $log ]] || die "the pass wrote no log"
    tail -n "+$(($1 + 1))" "$log" | sed -E "s|$work/||g; s|^[^ ]+ [^ ]+ ||; s| \(BaseAPI/[^)]*\)$||" |
        while IFS= read -r line; do
            case $line in
                err*) printf '  %s%s%s\n' "$red" "$line" "$plain" ;;
                *Successfully*) printf '  %s%s%s\n' "$green" "$line" "$plain" ;;
                *) printf '  %s%s%s\n' "$dim" "$line" "$plain" ;;
            esac
        done
}

lines_logged() { if [[ -e $log ]]; then wc -l <"$log"; else echo 0; fi; }

# ---------------------------------------------------------------------------------------------- checking

# The file IS has to hold what the file WANTED holds.
expect_same() {  # WANTED IS
    [[ $(sha256sum <"$1") == "$(sha256sum <"$2")" ]] || die "${2#"$work"/} does not hold what ${1#"$work"/} holds"
}

expect_absent() { [[ ! -e $1 ]] || die "${1#"$work"/} should not be there"; }

verified() { good "Checked with sha256sum: $*"; }

# ---------------------------------------------------------------------------------------------- running

# Runs one pass as a process of its own and shows its part of the log; the pass has to end with STATUS.
run_pass() {  # OPERATOR STATUS
    local start status=0
    start=$(lines_logged)
    command_line "VCopyFileListIni $1 package/filelist.ini"
    "$tool" "$1" "$package/filelist.ini" || status=$?
    show_log "$start"
    [[ $status == "$2" ]] || die "$1 ended with $status instead of $2"
}

# Runs vfilelist on the file list and shows its report; it has to end with STATUS.
run_vfilelist() {  # STATUS COMMAND OPTION...
    local status=0
    command_line "vfilelist ${*:2} package/filelist.ini"
    { "$vfilelist" "${@:2}" "$package/filelist.ini" || status=$?; } > >(sed "s|$work/||g; s|^|  |; s| *$||")
    wait "$!"
    [[ $status == "$1" ]] || die "vfilelist $2 ended with $status instead of $1"
}

write_file_list() {  # BIN-FILES LIB-FILES
    cat >"$package/filelist.ini" <<INI
[Package_Intall_Type]
PackageIntallType=Server
[Server]
BinFiles=$app/bin
LibFiles=$app/lib
[BinFiles]
f1=$1
[LibFiles]
f1=$2
INI
}

make_package() {
    mkdir -p "$package/Common/bin" "$package/Common/lib"
    cp "$(command -v ls)" "$(command -v gzip)" "$package/Common/bin/"
    cp "$build/BaseAPI/VFileSys/libVFileSys.so" "$build/platform/libVIni.so" "$package/Common/lib/"
    write_file_list bin/ls,bin/gzip lib/libVFileSys.so,lib/libVIni.so
}

# The older release has another program for ls, libraries without debug information, and no gzip.
install_old_release() {
    mkdir -p "$app/bin" "$app/lib"
    cp "$(command -v cat)" "$app/bin/ls"
    strip --strip-all -o "$app/lib/libVFileSys.so" "$package/Common/lib/libVFileSys.so"
    strip --strip-all -o "$app/lib/libVIni.so" "$package/Common/lib/libVIni.so"
    echo "color = blue" >"$app/app.conf"
    cp -a "$app" "$before"
}

replaced='bin/ls lib/libVFileSys.so lib/libVIni.so'

# ---------------------------------------------------------------------------------------------- the story

prepare() {
    heading "1. A package, and an older release"
    make_package
    install_old_release
    tell "Everything lies in $work, and paths are shown from there." \
        "The package has a file list, package/filelist.ini, and beside it the new files, in package/Common:"
    sed "s|$work/||; s|^|  |" "$package/filelist.ini"
    show_tree "$package/Common"
    tell "The release, in app, has older files under the same names, no gzip, and a file that no list names:"
    show_tree "$app"
}

rename_pass() {
    local name
    heading "2. -rename: what is about to be replaced becomes a backup"
    run_pass -rename 0
    show_app
    for name in $replaced; do
        expect_same "$before/$name" "$app/$name.bak"
        expect_absent "$app/$name"
    done
    expect_absent "$app/bin/gzip.bak"
    verified "the backups hold the old files. There was no gzip, and none is missed."
}

copy_pass() {
    local name
    heading "3. -copy: the package's files take their places"
    run_pass -copy 0
    show_app
    for name in $replaced bin/gzip; do expect_same "$package/Common/$name" "$app/$name"; done
    verified "all four hold what the package brought."
    tell "Mind the modes: -copy brings the content alone. The backups still have the old modes; gzip had no predecessor:"
    run_vfilelist 0 rollback --only-modes
    [[ $(stat -c %a "$app/bin/ls") == "$(stat -c %a "$before/bin/ls")" ]] || die "ls has not the mode of its backup"
    command_line "chmod 755 app/bin/gzip; app/bin/gzip --version"
    chmod 755 "$app/bin/gzip"
    tell "  $("$app/bin/gzip" --version | head -n 1)"
    tell "All in place? vfilelist compares every file with the package's:"
    run_vfilelist 0 verify
}

clean_pass() {
    local name
    heading "4. -clean: the upgrade stands, the backups go"
    run_pass -clean 0
    show_app
    for name in $replaced; do
        expect_same "$package/Common/$name" "$app/$name"
        expect_absent "$app/$name.bak"
    done
    expect_same "$before/app.conf" "$app/app.conf"
    verified "no backup is left, and app.conf is as it was."
}

failed_upgrade() {
    local name
    heading "5. An upgrade that fails half-way, and the way back"
    tell "The next package replaces ls, gzip and libVIni.so, but also lists a file that it does not carry. Its" \
        "release engineer would have seen that:"
    rm -rf "$before"
    cp -a "$app" "$before"
    cp "$(command -v cat)" "$package/Common/bin/ls"
    write_file_list bin/ls,bin/missing,bin/gzip lib/libVIni.so
    run_vfilelist 1 check --errors-only
    tell "Nobody looked, and the upgrade begins:"
    command_line "VCopyFileListIni -rename package/filelist.ini"
    "$tool" -rename "$package/filelist.ini"
    run_pass -copy 240
    expect_same "$package/Common/bin/ls" "$app/bin/ls"
    tell "The pass stopped there with status 240: ls is new, gzip and libVIni.so are gone. Where do we stand?"
    run_vfilelist 1 verify
    tell "Back to what was:"
    run_vfilelist 0 rollback
    run_vfilelist 0 verify --expect restored
    for name in $replaced bin/gzip app.conf; do
        expect_same "$before/$name" "$app/$name"
        [[ $(stat -c %a "$before/$name") == "$(stat -c %a "$app/$name")" ]] || die "$name has another mode"
    done
    verified "every file, and its mode, is what it was before this upgrade."
}

# The product's helper tool has a fixed place, and a log file in /tmp. A private view of the file system, where a
# script stands for the tool, keeps both off the host.
private_view() {
    printf '#!/bin/sh\necho "helper tool: $*"\n' >"$work/helper"
    chmod 755 "$work/helper"
    bwrap --ro-bind / / --dev /dev --proc /proc --tmpfs /tmp --tmpfs /usr/local \
        --ro-bind "$work/helper" /usr/local/tarnserver/bin/tarnfileprotect \
        --ro-bind "$build" "$build" --bind "$work" "$work" --die-with-parent "$@"
}

# What the classes do and, dimmed, what they log.
tour() {
    local line
    local -a command=("$build/examples/Tour" "$work/tour")
    heading "6. A tour of the library: each class does one real thing, and logs it"
    mkdir "$work/tour"
    if private_view true 2>/dev/null; then
        command=(private_view "${command[@]}" --with-helper)
    else
        note "This machine allows no private mount namespace, so what needs the helper tool is left out."
    fi
    "${command[@]}" 2>&1 | sed -uE "s#$work/##g; /^tar: /d; s#^[0-9-]+ [0-9:.]+ (info |error) #  \1 #" |
        while IFS= read -r line; do
            case $line in
                '  error'* | '  info'*) printf '%s%s%s\n' "$dim" "$line" "$plain" ;;
                V*) printf '%s%s%s\n' "$bold" "$line" "$plain" ;;
                *) printf '%s\n' "$line" ;;
            esac
        done
    printf '\n'
}

[[ -x $tool ]] || die "there is no $tool; run ./dev demo"
prepare
rename_pass
copy_pass
clean_pass
failed_upgrade
tour
note "Nothing is left of it all: the temporary directory is removed now."
