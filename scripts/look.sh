# How the scripts speak: calm, aligned, in colour on a terminal only. Sourced, not run.
# shellcheck shell=bash
# shellcheck disable=SC2034  # used by those who source this file

is_terminal() { [[ -t 1 && ${TERM:-dumb} != dumb ]]; }

if is_terminal && [[ -z ${NO_COLOR:-} ]]; then
    bold=$'\e[1m' dim=$'\e[2m' red=$'\e[31m' green=$'\e[32m' blue=$'\e[36m' plain=$'\e[0m'
else
    bold='' dim='' red='' green='' blue='' plain=''
fi

heading() { printf '\n%s%s%s\n' "$bold$blue" "$*" "$plain"; }
note() { printf '%s%s%s\n' "$dim" "$*" "$plain"; }
good() { printf '%s%s%s\n' "$green" "$*" "$plain"; }

# Passes lines on; on a terminal each takes the place of the one before, and the last goes away.
status_line() {
    local line
    if ! is_terminal; then
        cat
        return
    fi
    while IFS= read -r line; do printf '\r\e[K%s' "${line:0:${COLUMNS:-80}}"; done
    printf '\r\e[K'
}

# Says what went wrong, in one line on standard error, and ends the script.
die() {
    printf '%s%s: %s%s\n' "$red" "${0##*/}" "$*" "$plain" >&2
    exit 1
}

# quietly WHAT COMMAND...: says what it does; the command's own words are shown only if it fails.
quietly() {
    local what=$1 output
    shift
    note "$what ..."
    if ! output=$("$@" 2>&1); then
        printf '%s\n' "$output" >&2
        die "$what failed: $*"
    fi
}
