#!/usr/bin/env bash
# check.sh FILE...: each library and program has the protections that the build asks for, as the linker and the
# compiler left them in the file.
set -euo pipefail
export LC_ALL=C

failures=0
fail() {
    printf 'FAILED: %s\n' "$*"
    failures=$((failures + 1))
}

# What the loader does with the file.
check_loading() {  # FILE
    local dynamic headers
    dynamic=$(readelf --dynamic --wide "$1")
    headers=$(readelf --program-headers --wide "$1")
    grep -qE '\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW' <<<"$dynamic" || fail "$1 binds lazily"
    grep -q GNU_RELRO <<<"$headers" || fail "$1 has no read-only relocations"
    grep -qE 'GNU_STACK.* RW +0x' <<<"$headers" || fail "$1 has an executable stack"
    if grep -qE '^ +LOAD.* RWE ' <<<"$headers"; then fail "$1 has memory that is writable and executable"; fi
    if grep -q TEXTREL <<<"$dynamic"; then fail "$1 has relocations in its code"; fi
    # A run path leads nowhere but to the file's own place.
    # shellcheck disable=SC2016  # the loader's variable, not the shell's
    if grep -qP '\((RPATH|RUNPATH)\).*\[(?!\$ORIGIN)[^]]' <<<"$dynamic"; then
        fail "$1 has a run path of somebody's machine"
    fi
    if grep -q INTERP <<<"$headers"; then
        grep -q '(FLAGS_1).*PIE' <<<"$dynamic" || fail "$1 is not position-independent"
    fi
}

# Counts the lines of the disassembly that match.
count_in_code() { grep -cP "$1" <<<"$code" || true; }

# What the compiler put into the code. The notes of a file say less: one start file without them is enough to
# lose them.
check_code() {  # FILE
    local code functions landings leaps
    code=$("${OBJDUMP:-objdump}" --disassemble --no-show-raw-insn "$1")
    functions=$(count_in_code '^[0-9a-f]+ <(?!.*@plt>)')  # without the linker's own
    case $(readelf --file-header "$1" | sed -n 's/ *Machine: *//p') in
        *X86-64*)
            landings=$(count_in_code 'endbr64')
            # shellcheck disable=SC2016  # the assembler's dollar
            leaps=$(count_in_code '\tsub +\$0x(?!1000,)[0-9a-f]{4,8},%rsp')
            ;;
        AArch64)
            landings=$(count_in_code '\t(bti|paciasp)')
            leaps=$(count_in_code '\tsub\tsp, sp, #0x(?!10,)[0-9a-f]{2,}, lsl')
            ;;
        *) fail "$1 is for a machine that nobody has looked at"; return ;;
    esac
    ((landings * 2 > functions)) || fail "$1: $landings branch landings for $functions functions"
    # No stack pointer steps over a guard page: larger frames are taken in steps that are touched.
    ((leaps == 0)) || fail "$1: $leaps frames are larger than the guard page, and not probed"
    # The dynamic names, since a stripped file has no others.
    grep -q __stack_chk_fail <<<"$(readelf --dyn-syms --wide "$1")" || fail "$1 has no stack protector"
    note="$note ${1##*/}: $landings branch landings;"
}

note=''
for file in "$@"; do
    check_loading "$file"
    check_code "$file"
done
((failures == 0)) || exit 1
printf '%s files hardened.%s\n' "$#" "$note"
