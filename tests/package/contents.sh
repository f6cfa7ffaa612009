#!/usr/bin/env bash
# contents.sh SOURCE PLACE ARCHITECTURE [EMULATOR...]: looks at the packages in PLACE without installing them: their
# fields, their files, and the tools at work.
set -euo pipefail

source=$(readlink -f "$1")
place=$(readlink -f "$2")
architecture=$3
emulator=("${@:4}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
version=$(sed -nE 's/^project\(.* VERSION ([0-9.]+).*/\1/p' "$source/CMakeLists.txt")
bill=$place/vfilesys_${version}_$architecture.spdx.json

fail() {
    printf 'FAILED: %s\n' "$*"
    exit 1
}

package_file() { printf '%s/%s_%s_%s.deb' "$place" "$1" "$version" "$architecture"; }
field() { dpkg-deb -f "$(package_file "$1")" "${@:2}"; }

# The names alone: the versions are the ones that the libraries of the build asked for.
check_needs() {  # PACKAGE NAMES
    local names
    names=$(field "$1" Depends | sed -E 's/ \([^)]*\)//g')
    [[ $names == "$2" ]] || fail "$1 depends on $names"
}

check_fields() {
    local package
    for package in libvfilesys libvfilesys-dev vfilesys-tools vfilesys-standins vfilesys-standins-dev; do
        [[ -e $(package_file "$package") ]] || fail "there is no $(package_file "$package")"
        [[ $(field "$package" Architecture) == "$architecture" ]] || fail "$package is for another architecture"
    done
    check_needs libvfilesys 'libc6, libgcc-s1, libstdc++6, vfilesys-standins | vfilesys-neighbours, zlib1g'
    check_needs libvfilesys-dev 'libvfilesys, vfilesys-standins-dev | vfilesys-neighbours-dev'
    check_needs vfilesys-tools \
        'libc6, libgcc-s1, libssl3, libstdc++6, libvfilesys, vfilesys-standins | vfilesys-neighbours'
    check_needs vfilesys-standins 'libc6, libfmt9, libgcc-s1, libstdc++6'
    check_needs vfilesys-standins-dev vfilesys-standins
    check_built_using vfilesys-tools 'cli11, libarchive, nlohmann-json3'
    check_built_using vfilesys-standins 'fmtlib, libsimpleini, spdlog'
    [[ $(field vfilesys-tools Multi-Arch) == foreign ]] || fail "vfilesys-tools serves its own architecture alone"
    for package in vfilesys-standins:vfilesys-neighbours vfilesys-standins-dev:vfilesys-neighbours-dev; do
        [[ $(field "${package%:*}" Provides Conflicts Replaces | grep -c ": ${package#*:}$") == 3 ]] ||
            fail "${package%:*} gives no way to the product's own"
    done
}

# The sources alone: the versions are the building machine's.
check_built_using() {  # PACKAGE SOURCES
    local sources
    sources=$(field "$1" Built-Using | sed -E 's/ \(= [^)]*\)//g')
    [[ $sources == "$2" ]] || fail "$1 is built using $sources"
}

# They are made once, with the packages for the building machine.
check_documents() {
    local place_of_site=$work/documents/usr/share/doc/vfilesys-doc/html
    if [[ $architecture != "$(dpkg --print-architecture)" ]]; then return; fi
    dpkg-deb --extract "$place/vfilesys-doc_${version}_all.deb" "$work/documents"
    /usr/bin/python3 -B "$source/tests/docs/links.py" "$place_of_site" || fail "vfilesys-doc has dead links"
}

# No file is in two packages, which could not be installed together then.
check_files() {
    local package
    for package in "$place"/*.deb; do
        dpkg-deb --contents "$package" | awk '$1 !~ /^d/ { print $6 }'
    done | sort | uniq -d >"$work/twice"
    [[ ! -s $work/twice ]] || fail "in two packages: $(cat "$work/twice")"
}

extract() {
    local package
    for package in libvfilesys vfilesys-tools vfilesys-standins; do
        dpkg-deb --extract "$(package_file "$package")" "$work/root"
    done
    libraries=$(dirname "$(find "$work/root" -name libVFileSys.so)")
}

# The same that is asked of what `cmake --install` puts in place; and the loader finds all without a run path.
check_binaries() {
    local binaries=("$libraries"/*.so "$work"/root/usr/bin/*) file
    "$source/tests/hardening/check.sh" "${binaries[@]}"
    "$source/tests/symbols/check.sh" "$libraries/libVFileSys.so" "$work"/root/usr/bin/*
    for file in "${binaries[@]}"; do
        if readelf --dynamic "$file" | grep -qE 'RPATH|RUNPATH'; then fail "$file has a run path"; fi
    done
}

# The directories that the compiler and the linker search by themselves are left out, and nothing is said twice.
check_pkg_config() {
    local flags directory
    dpkg-deb --extract "$(package_file libvfilesys-dev)" "$work/development"
    directory=$(dirname "$(find "$work/development" -name VFileSys.pc)")
    flags=$(PKG_CONFIG_LIBDIR=$directory PKG_CONFIG_SYSTEM_LIBRARY_PATH=${libraries#"$work/root"} \
        pkg-config --cflags --libs VFileSys)
    [[ ${flags% } == '-I/usr/include/VFileSys -lVFileSys' ]] || fail "pkg-config gives the flags $flags"
}

# The names that calls of the logger hand over are in the files.
check_logged_names() {
    local names name
    names=$(strings --all "$work"/root/usr/bin/* "$libraries"/*.so | grep -E '\.c(pp)?$' | sort -u)
    for name in VDir.cpp VCopyFileListIni.cpp unix/VMonitorFiles.cpp; do
        grep -qxF "BaseAPI/VFileSys/src/$name" <<<"$names" || fail "nothing would be logged as from $name"
    done
    if grep -v '^BaseAPI/VFileSys/src/' <<<"$names"; then fail "names of sources that do not begin with BaseAPI/"; fi
}

licence_is() {  # PACKAGE EXPRESSION
    grep -A 6 "\"name\": \"$1\"," "$bill" | grep -qF "\"licenseConcluded\": \"$2\"" || fail "$1 has another licence"
}

# The bill of materials is about these very files.
check_bill() {
    local package
    for package in libvfilesys libvfilesys-dev vfilesys-tools vfilesys-standins vfilesys-standins-dev; do
        grep -q "$(sha256sum <"$(package_file "$package")" | cut -d' ' -f1)" "$bill" ||
            fail "$bill tells of another $package"
    done
    for package in zlib1g libssl3 libfmt9 libspdlog-dev libsimpleini-dev libcli11-dev libarchive-dev nlohmann-json3-dev; do
        grep -qE "\"referenceLocator\": \"pkg:deb/debian/$package@[^\"]+\?arch=($architecture|all)\"" "$bill" ||
            fail "$bill does not tell which $package it was"
    done
    licence_is vfilesys-tools 'Apache-2.0 AND BSD-2-Clause AND BSD-3-Clause AND BSD-4-Clause-UC AND MIT'
    licence_is vfilesys-standins 'Apache-2.0 AND MIT AND MIT WITH fmt-exception'
    licence_is libvfilesys Apache-2.0
    if grep -n NOASSERTION "$bill" | grep -E 'license(Declared|Concluded)'; then fail "$bill lacks a licence"; fi
}

# Their text is that of the libraries that the bill knows.
check_notices() {
    local package notices
    for package in vfilesys-tools vfilesys-standins; do
        notices=$work/root/usr/share/doc/$package/third-party/$package.txt
        /usr/bin/python3 -B "$source/scripts/licences.py" "$bill" "$package" | diff "$notices" - ||
            fail "the notices in $package are not those of the libraries that it contains"
    done
}

check_fields
check_documents
check_files
extract
check_binaries
check_pkg_config
check_logged_names
check_bill
check_notices
LD_LIBRARY_PATH=$libraries "$source/tests/package/upgrade.sh" "$work/upgrade" "$work/root/usr/bin" "${emulator[@]}"
