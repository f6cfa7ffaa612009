#!/usr/bin/env bash
# check.sh SOURCE VFILELIST: the manual pages of the source tree SOURCE are well-formed, and tell neither less nor
# more than the headers, the sources, the documents and the built program VFILELIST.
set -euo pipefail
export LC_ALL=C.UTF-8

source=$(readlink -f "$1")
vfilelist=$(readlink -f "$2")
pages=$source/docs/man
library=$source/BaseAPI/VFileSys
failures=0

fail() {
    printf 'FAILED: %s\n' "$*"
    failures=$((failures + 1))
}

# same WHAT LEFT RIGHT: both are lists of lines, in any order.
same() {
    local difference
    difference=$(diff <(grep . <<<"$2" | sort -u) <(grep . <<<"$3" | sort -u)) || fail "$1 ('<' only there, '>' only in the page):
$(grep '^[<>]' <<<"$difference")"
}

render() { mandoc -T utf8 -O width="$2" "$1" | sed 's/.\x08//g'; }  # PAGE WIDTH

# The whole page as one line.
flat() { render "$1" 400 | tr -s '[:space:]' ' '; }

# The source of a section or subsection of a page, or what mandoc makes of a section.
part_of() {  # PAGE HEADING
    awk -v heading="$2" '/^\.S[hs] / { isIn = ($0 == heading) } isIn' "$pages/$1"
}
synopsis_of() { render "$pages/$1" 400 | awk '/^[A-Z]/ { isIn = ($0 == "SYNOPSIS"); next } isIn'; }

check_form() {  # PAGE
    local page=${1##*/} complaints name section
    complaints=$(mandoc -T lint -W warning "$1" 2>&1) || true
    if [[ -n $complaints ]]; then fail "$complaints"; fi
    (($(render "$1" 80 | wc -L) <= 80)) || fail "$page has lines that are wider than 80 columns"
    while read -r _ name section _; do
        [[ $name != [Vv][A-Zf]* || -e $pages/$name.$section ]] || fail "$page refers to $name($section)"
    done < <(grep '^\.Xr ' "$1")
}

# The pages of section 3 are what their headers make of them.
check_made_pages() {
    local made page
    made=$(mktemp -d)
    (cd "$source" && /usr/bin/python3 -B scripts/manual.py "$made")
    for page in "$made"/*; do
        diff -u "$pages/${page##*/}" "$page" ||
            fail "${page##*/} is not what its header makes: /usr/bin/python3 -B scripts/manual.py docs/man"
    done
    same "the pages of section 3 and the headers differ" "$(cd "$made" && ls)" "$(cd "$pages" && ls -- *.3)"
    rm -r "$made"
}

# The texts that sources log, without the line feeds at their ends.
logged_texts() {  # SOURCE...
    cat "$@" | tr -s '\n ' ' ' | grep -oP 'VFS_LOG\([^,]+, [^,]+, "\K(\\.|[^"\\])*(?=")' |
        sed 's/\\n$//; s/\\"/"/g' | sort -u
}

check_logged_by_class() {  # CLASS
    local class=$1 page text
    local -a sources
    mapfile -t sources < <(find "$library/src" -name "$class.cpp")
    page=$(flat "$pages/$class.3")
    while read -r text; do
        # What is logged as it is, the page has in words.
        [[ $text == %s || $page == *"$text"* ]] || fail "$class.3 lacks the log text '$text'"
    done < <(logged_texts "${sources[@]}" || true)
}

# Here the page has words in capitals where the source has %s and %d.
check_logged_by_tool() {
    local page text pattern
    page=$(flat "$pages/VCopyFileListIni.8")
    while IFS= read -r text; do
        # Is never written: the source says why.
        if [[ $text == '%s valua is null' ]]; then continue; fi
        pattern=$(sed 's/[][().*+?^$|]/\\&/g; s/%[sd]/[A-Z]+/g; s/^ *//' <<<"$text")
        [[ $page =~ $pattern ]] || fail "VCopyFileListIni.8 lacks the log text '$text'"
    done < <(logged_texts "$library/src/VCopyFileListIni.cpp")
}

help_of() { "$vfilelist" "$@" --help; }
options_in() { grep -oE -e '--[a-z][a-z-]*' || true; }
offered_options() { help_of "$@" | sed -nE 's/^  (-h,)?(--[a-z-]+).*/\2/p'; }
commands() { help_of | awk '/^Subcommands:/ { isIn = 1; next } /^$/ { isIn = 0 } isIn { print $1 }'; }
described_options() { part_of vfilelist.1 "$1" | sed -nE 's/^\.It (Fl h , )?Fl Fl ([a-z-]+).*/--\2/p'; }

check_options() {
    local command usage
    usage=$(synopsis_of vfilelist.1)
    same "vfilelist --help and vfilelist.1 have different commands" "$(commands)" \
        "$(sed -n '/^\.Ss/s/^\.Ss //p' "$pages/vfilelist.1")"
    same "vfilelist --help and the usage in vfilelist.1 have different options" "$(offered_options)" \
        "$(grep -vE "vfilelist ($(commands | paste -sd'|'))" <<<"$usage" | options_in)"
    for command in $(commands); do
        same "vfilelist $command --help and the usage in vfilelist.1 have different options" \
            "$(offered_options "$command" | grep -vx -e --help)" "$(grep "vfilelist $command " <<<"$usage" | options_in)"
        same "vfilelist $command --help and its description in vfilelist.1 have different options" \
            "$(offered_options "$command")" "$(described_options '.Sh DESCRIPTION')
$(described_options ".Ss $command")"
    done
    same "vfilelist verify --help and vfilelist.1 have different states" \
        "$(help_of verify | sed -nE 's/.*STATE:\{(.*)\}.*/\1/p' | tr ',' '\n')" \
        "$(part_of vfilelist.1 '.Ss verify' | sed -n 's/^\.It Cm //p')"
}

classes=()
for header in "$library"/include/*.h; do classes+=("$(basename "$header" .h)"); done

for page in "$pages"/*.[1-8]; do check_form "$page"; done
check_made_pages
for class in "${classes[@]}"; do check_logged_by_class "$class"; done
check_logged_by_tool
check_options

((failures == 0)) || exit 1
printf '%s\n' "$(find "$pages" -name '*.[1-8]' | wc -l) manual pages, ${#classes[@]} classes"
