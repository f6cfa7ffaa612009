#!/usr/bin/env bash
# check.sh COMPLETIONS [VFILELIST]: what bash completes for both programs with the files of the directory
# COMPLETIONS; and that the built program VFILELIST, if it is given, knows the same options and states.
set -euo pipefail

completions=$(readlink -f "$1")
vfilelist=${2:+$(readlink -f "$2")}
scratch=$(mktemp -d)
trap 'rm -r "$scratch"' EXIT
checks=0
failures=0

# completed WORD...: what the last word is completed to, sorted. The words are split as bash splits a line.
completed() {
    local COMP_CWORD=$(($# - 1))
    local -a COMP_WORDS=("$@") COMPREPLY=()
    local -a registered
    read -ra registered < <(complete -p "$1")
    "${registered[2]}" "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    if ((${#COMPREPLY[@]} > 0)); then printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd' '; fi
}

# expect EXPECTED WORD...
expect() {
    local actual
    actual=$(completed "${@:2}")
    ((++checks))
    if [[ $actual != "$1" ]]; then
        printf 'FAILED: %s|: completed to "%s", not to "%s"\n' "${*:2}" "$actual" "$1"
        ((++failures))
    fi
}

check_upgrade_tool() {
    expect '-clean -copy -rename' VCopyFileListIni ''
    expect '-clean -copy' VCopyFileListIni -c
    expect '-rename' VCopyFileListIni -r
    expect '' VCopyFileListIni filelist
    expect 'filelist.ini name with blanks.ini other.ini package' VCopyFileListIni -copy ''
    expect 'filelist.ini' VCopyFileListIni -copy f
    expect 'package/deep package/filelist.ini' VCopyFileListIni -copy package/
    expect '' VCopyFileListIni -copy filelist.ini ''
}

check_commands() {
    expect '--help --version check commit make plan resume rollback status upgrade verify' vfilelist ''
    expect 'resume rollback' vfilelist r
    expect '--help --version' vfilelist -
    expect '' vfilelist f
}

check_vfilelist_options() {
    expect '--color --errors-only --help --json --root --state --trusted' vfilelist check -
    expect '--color --help --json --trusted' vfilelist plan -
    expect '--color --expect --help --ignore-modes --installed --json --state --trusted' vfilelist verify -
    expect '--color --expect --help --ignore-modes --json --state --trusted' vfilelist verify filelist.ini -
    expect '--color --dry-run --help --json --only-modes --partial --state' vfilelist rollback -
    expect '--allow --base --color --help --json --lowest --owner --prefix --release --tree' vfilelist make -
    expect '--json' vfilelist verify filelist.ini --j
    # What is there already, and what it excludes, would be refused.
    expect '--color --errors-only --help --root --state --trusted' vfilelist check --json -
    expect '--color --dry-run --help --json --state' vfilelist rollback --only-modes -
    expect '--color --dry-run --help --json --state' vfilelist rollback --partial -
    expect '--partial' vfilelist rollback filelist.ini --dry-run --p
    expect '' vfilelist unknown --r
}

check_values() {
    expect 'cleaned copied renamed restored' vfilelist verify --expect ''
    expect 'renamed restored' vfilelist verify --json --expect re
    expect 'cleaned copied renamed restored' vfilelist verify --expect =
    expect 'cleaned copied' vfilelist verify --expect = c
    expect '' vfilelist verify --expect f
    expect 'always auto never' vfilelist status --color =
    expect 'package' vfilelist check --root ''
    expect 'package/deep' vfilelist check --root = package/
    expect '' vfilelist make --release f
    local command option
    for option in --tree --base --prefix; do
        expect 'package' vfilelist make "$option" ''
    done
    for command in upgrade commit rollback resume status; do
        expect 'package' vfilelist "$command" --state ''
    done
    expect 'filelist.ini' vfilelist verify --expect cleaned f
    # Another command's option has no values.
    expect 'filelist.ini' vfilelist plan --expect f
}

check_files() {
    local command
    for command in upgrade rollback check plan verify; do
        expect 'filelist.ini name with blanks.ini other.ini package' vfilelist "$command" ''
        expect 'name with blanks.ini' vfilelist "$command" --json n
        expect 'package/deep package/filelist.ini' vfilelist "$command" package/
        expect '' vfilelist "$command" notes
    done
    expect 'package' vfilelist make ''
    for command in commit resume status; do
        expect '' vfilelist "$command" ''
    done
}

# Without the short forms.
check_program() {
    local command
    for command in upgrade commit rollback resume status make check plan verify; do
        expect "$("$vfilelist" "$command" --help | sed -nE 's/^  (-h,)?(--[a-z-]+).*/\2/p' | sort | paste -sd' ')" \
            vfilelist "$command" -
    done
    expect "$("$vfilelist" verify --help | sed -nE 's/.*STATE:\{(.*)\}.*/\1/p' | tr ',' '\n' | sort | paste -sd' ')" \
        vfilelist verify --expect ''
    expect "$("$vfilelist" status --help | sed -nE 's/.*WHEN:\{(.*)\}.*/\1/p' | tr ',' '\n' | sort | paste -sd' ')" \
        vfilelist status --color ''
    expect "$({
        "$vfilelist" --help | sed -nE 's/^  (-h,)?(--[a-z-]+).*/\2/p'
        "$vfilelist" --help | awk '/^Subcommands:/ { isIn = 1; next } /^$/ { isIn = 0 } isIn { print $1 }'
    } | sort | paste -sd' ')" vfilelist ''
}

export LC_ALL=C
# shellcheck source=completions/VCopyFileListIni
. "$completions/VCopyFileListIni"
# shellcheck source=completions/vfilelist
. "$completions/vfilelist"
cd "$scratch"
mkdir -p package/deep
touch filelist.ini other.ini notes.txt 'name with blanks.ini' package/filelist.ini package/tool

check_upgrade_tool
check_commands
check_vfilelist_options
check_values
check_files
if [[ -n $vfilelist ]]; then check_program; fi

((failures == 0)) || exit 1
printf '%s completions\n' "$checks"
