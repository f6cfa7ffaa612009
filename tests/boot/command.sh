#!/usr/bin/env bash
# command.sh SOURCE BUILD: installs the build tree BUILD of the source tree SOURCE, cuts an upgrade of the installed
# files off wherever it can be, and runs what vfilelist-resume.service says, in a mount namespace of its own.
set -euo pipefail

if [[ $1 != --inside ]]; then
    if ! bwrap --ro-bind / / --dev /dev --proc /proc true 2>/dev/null; then
        echo "SKIPPED: this machine allows no private mount namespace"
        exit 77
    fi
    work=$(mktemp -d "${TMPDIR:-/tmp}/vfilesys-boot-XXXXXX")
    trap 'rm -rf "$work"' EXIT
    cmake --install "$2" --strip --prefix "$work/product" >"$work/output" || { cat "$work/output"; exit 1; }
    c++ -shared -fPIC -o "$work/product/kill_at.so" "$1/tests/boot/KillAt.cpp"
    # The tracer knows one processor's registers.
    if [[ $(uname -m) == x86_64 ]]; then
        c++ -std=c++17 -I "$1/tests/support" -o "$work/product/kill_tree" "$1"/tests/{boot/KillTree,support/TracedTree}.cpp
    fi
    bwrap --ro-bind / / --dev /dev --proc /proc --unshare-pid --die-with-parent --unsetenv LD_LIBRARY_PATH \
        --tmpfs /opt --tmpfs /srv --tmpfs /var \
        --bind "$work/product" /opt/product "$(readlink -f "${BASH_SOURCE[0]}")" --inside
    exit
fi

programs=/opt/product/bin
libraries=$(dirname "$(find /opt/product -name libVFileSys.so)")
kill_at=/opt/product/kill_at.so
kill_tree=/opt/product/kill_tree
unit=/opt/product/lib/systemd/system/vfilelist-resume.service
# shellcheck source=tests/boot/product.sh
. "$(dirname "${BASH_SOURCE[0]}")/product.sh"

of_unit() { sed -n "s/^$1=//p" "$unit"; }  # KEY

# As systemd starts it: with no other environment, and not at all when the condition does not hold.
boot() {
    local -a environment command
    [[ -e $(of_unit ConditionPathExists) ]] || return 0
    mapfile -t environment < <(of_unit Environment)
    read -ra command < <(of_unit ExecStart)
    env --ignore-environment "${environment[@]}" "${command[@]}" >/var/output 2>&1
}

try_all() {  # WHAT
    local cut expected before
    while read -r cut expected; do
        make_product
        before=$(listing)
        cut_off "$cut"
        boot || fail "$1, $cut: the unit's command ended with $?: $(cat /var/output)"
        [[ $(old_or_new "$before") == "$expected" ]] || fail "$1, $cut: the files are $(old_or_new "$before")"
        [[ ! -e $state/state ]] || fail "$1, $cut: the upgrade is still open"
        printf -- '- %s, cut off at "%s": the files are %s\n' "$1" "$cut" "$expected"
    done < <(grep . <<<"$cuts")
}

# A complete one waits for a decision.
end_upgrade() {  # WHAT
    [[ -e $state/state ]] || return 0
    expect_state installed
    "$programs/vfilelist" rollback >/var/output || fail "$1: $(cat /var/output)"
}

# Kills COMMAND at its calls, a sample of them unless the scale says more.
kill_everywhere() {  # COMMAND...
    local at calls step points=0 before
    make_product
    calls=$(begin "$@" 0)
    end_upgrade "$1"
    step=$((calls / (20 * ${VFILESYS_TEST_SCALE:-1}) + 1))
    for ((at = 1; at <= calls; at += step, ++points)); do
        make_product
        before=$(listing)
        begin "$@" "$at" >/var/output
        boot || fail "$1 killed at $at: the unit's command ended with $?: $(cat /var/output)"
        end_upgrade "$1 killed at $at"
        case $(old_or_new "$before") in
            OLD) ;;
            NEW) [[ $1 == commit ]] || fail "$1 killed at $at: the files are new" ;;
            *) fail "$1 killed at $at: the files are $(old_or_new "$before")" ;;
        esac
    done
    printf -- '- %s of vfilelist itself: killed at %s of %s calls\n' "$1" "$points" "$calls"
}

begin() {  # COMMAND... CALL
    [[ $1 == upgrade ]] || "$programs/vfilelist" upgrade "$package/filelist.ini" >/dev/null
    "$kill_tree" "${@: -1}" "$programs/vfilelist" "${@:1:$#-1}"
}

boot || fail "the command runs without an open upgrade"
try_all "an upgrade of vfilelist itself"
if [[ -x $kill_tree ]]; then
    kill_everywhere upgrade "$package/filelist.ini"
    kill_everywhere rollback
    kill_everywhere commit
fi
own_programs=() own_libraries=()
try_all "an upgrade without it"
