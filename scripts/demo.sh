#!/usr/bin/env bash
# demo.sh BUILD [--step]: an upgrade, one that fails, one that is killed, and a tour of the library, with what was built
# in BUILD: real files, the real logger and INI reader, in a temporary directory that is gone at the end. --step waits for
# a key after each section.
set -euo pipefail
# shellcheck source=scripts/look.sh
. "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/look.sh"

build=$(readlink -f "$1")
step=${2:-}
vfilelist=$build/BaseAPI/VFileList/vfilelist
work=$(mktemp -d "${TMPDIR:-/tmp}/vfilesys-demo-XXXXXX")
trap 'rm -rf "$work"' EXIT
export VLOGGER_DIRECTORY=$work/log
unset VLOGGER_STDERR
log=$VLOGGER_DIRECTORY/TarnFramework_upgrade.log
umask 022

new=$work/new          # the release that is to be installed
package=$work/package  # the package made of it: a file list, the files in Common/, a manifest and its signature
app=$work/app          # where the release is installed
before=$work/before    # a copy of the release, to compare with
state=$work/state      # what belongs to the open upgrade; /var/lib/vfilelist on a server

# ---------------------------------------------------------------------------------------------- showing

# On a terminal, lines are broken between words.
columns=100000
if is_terminal; then columns=$(tput cols); fi
wrapped() { fold -s -w "$columns"; }

tell() { printf '%s\n' "$@" | wrapped; }
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

# What the passes wrote to the upgrade log: level, function and text, with short paths; errors stand out.
show_log() {  # LINES-LOGGED-BEFORE
    [[ -e $log ]] || die "the passes wrote no log"
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

verified() { tell "Checked with sha256sum: $*" | while IFS= read -r line; do good "$line"; done; }

# ---------------------------------------------------------------------------------------------- running

# Runs vfilelist and shows its report; it has to end with STATUS.
run_vfilelist() {  # STATUS COMMAND [OPTION|FILE...]
    local status=0
    local -a place=(--state "$state") look=()
    if [[ -n $plain ]]; then look=(--color=always); fi  # its standard output is no terminal here
    case $2 in
        make) place=() ;;
        check | upgrade) place+=(--trusted "$work/trusted") ;;
    esac
    command_line "vfilelist ${*:2}"
    { (cd "$work" && "$vfilelist" "${@:2}" "${place[@]}" "${look[@]}") || status=$?; } > >(sed "s|$work/||g; s|^|  |; s| *$||")
    wait "$!"
    [[ $status == "$1" ]] || die "vfilelist $2 ended with $status instead of $1"
}

run_openssl() {  # ARGUMENT...
    command_line "openssl $*"
    (cd "$work" && openssl "$@" 2>/dev/null) || die "openssl failed"
}

# The new release is a directory tree; vfilelist makes a package of it, and its maker signs it.
make_package() {
    mkdir -p "$new/bin" "$new/lib"
    cp "$(command -v ls)" "$(command -v gzip)" "$new/bin/"
    cp "$build/BaseAPI/VFileSys/libVFileSys.so" "$build/platform/libVIni.so" "$new/lib/"
    run_vfilelist 0 make --tree new --prefix "$app" --release 2.0 package
    mkdir "$work/trusted"
    run_openssl genpkey -algorithm ed25519 -out maker.key
    run_openssl pkey -in maker.key -pubout -out trusted/maker.pem
    sign_package
}

sign_package() {
    run_openssl pkeyutl -sign -rawin -inkey maker.key -in package/filelist.ini.mtree -out package/filelist.ini.mtree.sig
}

# Makes the package anew, of a tree that has changed.
remake_package() {  # RELEASE
    rm -r "$package"
    run_vfilelist 0 make --tree new --prefix "$app" --release "$1" package
    sign_package
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
    tell "Everything lies in $work, and paths are shown from there." \
        "A new release is a directory tree. A package is made of it, and signed:"
    make_package
    tell "The package has a file list, package/filelist.ini, and beside it the new files, in package/Common:"
    sed "s|$work/||; s|^|  |" "$package/filelist.ini"
    show_tree "$package"
    install_old_release
    tell "The release, in app, has older files under the same names, no gzip, and a file that no list names:"
    show_tree "$app"
}

# Every file of the release, with its mode, has to be what it was before.
expect_old_release() {
    local name
    for name in $replaced app.conf; do
        expect_same "$before/$name" "$app/$name"
        [[ $(stat -c %a "$before/$name") == "$(stat -c %a "$app/$name")" ]] || die "$name has another mode"
    done
    expect_absent "$app/bin/ls.bak"
}

upgrade() {
    local name start
    heading "2. The upgrade: one command"
    tell "What would go wrong? vfilelist looks before anything is changed:"
    run_vfilelist 0 check package/filelist.ini --errors-only
    start=$(lines_logged)
    run_vfilelist 0 upgrade package/filelist.ini
    show_app
    for name in $replaced bin/gzip; do expect_same "$package/Common/$name" "$app/$name"; done
    for name in $replaced; do expect_same "$before/$name" "$app/$name.bak"; done
    [[ $(stat -c %a "$app/bin/ls") == "$(stat -c %a "$before/bin/ls")" ]] || die "ls has not the mode of its predecessor"
    verified "all four files hold what the package brought, and the backups hold the old files."
    tell "The upgrade ran two passes of VCopyFileListIni. This is what they logged:"
    show_log "$start"
}

commit() {
    local name
    heading "3. All is well: the backups go"
    run_vfilelist 0 commit
    show_app
    for name in $replaced; do
        expect_same "$package/Common/$name" "$app/$name"
        expect_absent "$app/$name.bak"
    done
    expect_same "$before/app.conf" "$app/app.conf"
    verified "no backup is left, and app.conf, which no list names, is as it was."
}

forged_package() {
    heading "4. A package that was changed on its way"
    rm -rf "$before"
    cp -a "$app" "$before"
    cp "$(command -v cat)" "$new/bin/ls"
    remake_package 2.1
    printf x >>"$package/Common/bin/ls"
    tell "The next package has another ls. Then a byte is added to it:"
    run_vfilelist 1 upgrade package/filelist.ini
    tell "An older package, correctly signed, comes again:"
    remake_package 1.9
    run_vfilelist 1 upgrade package/filelist.ini
    expect_old_release
    verified "no file was touched."
    remake_package 2.1
}

failed_upgrade() {
    heading "5. An upgrade that fails half-way"
    tell "This package is intact, but the disk has no room for the libraries (here: no file may be larger than 64 KiB):"
    (ulimit -f 64 && run_vfilelist 1 upgrade package/filelist.ini)
    show_app
    expect_old_release
    verified "every file, and its mode, is what it was before this upgrade."
}

killed_upgrade() {
    local process
    heading "6. An upgrade that is killed in the middle"
    truncate -s 256M "$new/lib/large"
    remake_package 2.2
    command_line "vfilelist upgrade package/filelist.ini &"
    # Killed, it could not wipe away a progress line; a dumb terminal gets none.
    (cd "$work" && TERM=dumb exec "$vfilelist" upgrade package/filelist.ini --state "$state" \
        --trusted "$work/trusted" >/dev/null) &
    process=$!
    until [[ -e $app/lib/large ]] || ! kill -0 "$process" 2>/dev/null; do sleep 0.01; done
    command_line "kill -9 %1"
    kill -9 "$process"
    wait "$process" 2>/dev/null || true
    show_app
    run_vfilelist 1 status
    tell "After a power cut the boot unit does this:"
    run_vfilelist 0 resume
    show_app
    expect_old_release
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
    heading "7. A tour of the library: each class does one real thing, and logs it"
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

wait_for_key() {
    printf '%sPress a key to go on.%s' "$dim" "$plain"
    read -rsn 1 || die "no more keys"
    printf '\r\e[K'
}

what_next() {
    printf '\nTry next:\n'
    printf '  %s%-56s%s  %s\n' "$bold" './dev demo --step' "$plain" 'section by section' \
        "$bold" "${vfilelist#"$PWD"/} upgrade --help" "$plain" 'all its options' \
        "$bold" './dev test VPathTest' "$plain" 'the tests of VPath'
}

[[ -x $vfilelist ]] || die "there is no $vfilelist; run ./dev demo"
for section in prepare upgrade commit forged_package failed_upgrade killed_upgrade tour; do
    "$section"
    if [[ -n $step ]]; then wait_for_key; fi
done
note "The temporary directory is removed now: the demo leaves nothing."
what_next
