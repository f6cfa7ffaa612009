#!/usr/bin/env bash
# check.sh LIBRARY PROGRAM...: looks into libVFileSys.so and the programs as they were linked. The exported names
# are the binary interface; the imported ones are what a program can stand in front of; and the loader's
# protections have to be asked for at every link.
set -euo pipefail
export LC_ALL=C

here=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
exported=$here/../../debian/libvfilesys.symbols
library=$1
programs=("${@:2}")
short_names='s/std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >/std::string/g
    s/std::vector<std::string, std::allocator<std::string> >/std::vector<std::string>/g'
failures=0

fail() {
    printf 'FAILED: %s\n' "$*"
    failures=$((failures + 1))
}

# The first column of a list without its comments.
names_in() { sed 's/#.*//' "$1" | awk 'NF { print $1 }' | sort; }

# A name that goes breaks the programs that were linked with it; a new one has to be kept for good. So the package's
# list of them, which has the version that brought each, is the list for every build.
exported_names() { sed -n 's/^ \(.*\)@Base .*/\1/p' "$exported" | sort; }

# The dynamic symbols of the library as "binding name", defined or undefined (UND), versions cut off. Those that
# only stand for a section, as the linker for AArch64 leaves some, are none that anybody could refer to.
dynamic_symbols() {
    readelf --dyn-syms --wide "$library" | awk -v wanted="$1" '
        $1 ~ /^[0-9]+:$/ && NF >= 8 && $4 != "SECTION" && (wanted == "UND") == ($7 == "UND") {
            sub(/@.*/, "", $8)
            print $5, $8
        }'
}

check_exports() {
    local difference weak
    if ! difference=$(diff <(exported_names) <(dynamic_symbols defined | cut -d' ' -f2 | sort)); then
        fail "the exported names differ from ${exported##*/} ('<' is listed, '>' is exported):"
        grep '^[<>]' <<<"$difference" | while read -r side name; do
            printf '%s %s  %s\n' "$side" "$name" "$(c++filt "$name" | sed "$short_names")"
        done
    fi
    weak=$(dynamic_symbols defined | grep -v '^GLOBAL ' | c++filt | sed "$short_names" || true)
    if [[ -n $weak ]]; then fail "not everything is exported as a strong symbol:"$'\n'"$weak"; fi
}

# What every program in C++ imports, and the neighbours' classes.
runtime='_Z.*|_ITM_.*|_Unwind_.*|__cxa_.*|__gmon_start__|__gxx_personality_v0|__stack_chk_(fail|guard)'

check_imports() {
    local imported name alias others
    imported=$(dynamic_symbols UND | cut -d' ' -f2)
    while read -r name; do
        if grep -qxF "$name" <<<"$imported"; then continue; fi
        alias=$(grep -xE "_*(IO_)?(${name})(64|_chk|64_chk)?" <<<"$imported" | paste -sd' ' || true)
        fail "$name is not imported under its plain name${alias:+, but as $alias}"
    done < <(names_in "$here/imported.txt")
    others=$(grep -vxE "$runtime" <<<"$imported" |
        grep -vxFf <(names_in "$here/imported.txt"; names_in "$here/allowed.txt") | paste -sd' ' || true)
    if [[ -n $others ]]; then fail "these imported names are in neither imported.txt nor allowed.txt: $others"; fi
}

check_soname() {
    local soname
    soname=$(readelf --dynamic --wide "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]$/\1/p')
    [[ $soname == libVFileSys.so ]] || fail "the library calls itself '$soname'"
}

# dlclose never unloads it: the firewall fixer's thread runs its code.
check_stays_loaded() {
    readelf --dynamic --wide "$library" | grep -qE '\(FLAGS_1\).*NODELETE' || fail "the library can be unloaded"
}

# Read-only relocations, all bound at the start, and no executable stack.
check_hardening() {  # FILE
    local dynamic headers
    dynamic=$(readelf --dynamic --wide "$1")
    headers=$(readelf --program-headers --wide "$1")
    grep -qE '\(BIND_NOW\)|\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW' <<<"$dynamic" || fail "$1 binds lazily"
    grep -q 'GNU_RELRO' <<<"$headers" || fail "$1 has no read-only relocations"
    grep -E 'GNU_STACK' <<<"$headers" | grep -qE ' RW +0x' || fail "$1 has an executable stack"
}

check_program() {  # FILE
    check_hardening "$1"
    readelf --dynamic --wide "$1" | grep -qE '\(FLAGS_1\).*PIE' || fail "$1 is not position-independent"
}

# What __FILE__ became: every source name in the data begins at the top of the source tree, wherever that lay.
check_source_names() {
    local names others
    names=$(readelf --string-dump=.rodata "$library" | sed -n 's/^ *\[ *[0-9a-f]*\]  //p' |
        grep -E '\.(c|h|cpp|hpp)$' | sort -u || true)
    grep -qx 'BaseAPI/VFileSys/src/VFile.cpp' <<<"$names" || fail "BaseAPI/VFileSys/src/VFile.cpp is not baked in"
    others=$(grep -v '^BaseAPI/' <<<"$names" || true)
    if [[ -n $others ]]; then fail "source names that do not begin with BaseAPI/:"$'\n'"$others"; fi
}

check_exports
check_imports
check_soname
check_stays_loaded
check_hardening "$library"
for program in "${programs[@]}"; do check_program "$program"; done
check_source_names

((failures == 0)) || exit 1
printf '%s\n' "$(exported_names | wc -l) names exported, $(names_in "$here/imported.txt" | wc -l)\
 platform names imported as listed, hardened: ${library##*/} ${programs[*]##*/}"
