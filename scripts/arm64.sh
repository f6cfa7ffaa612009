# What a build for AArch64 stands on. Sourced by ./dev.
# shellcheck shell=bash

# The AArch64 packages are unpacked below it, where cmake/arm64.cmake looks for them. apt's own files about them are
# there as well: this machine's architectures and its list of packages stay as they are.
arm64_debian=build/arm64/debian

# apt-get for AArch64, with this machine's sources and keys.
arm64_apt_get() {  # PLACE ARGUMENT...
    local apt=$1/apt
    shift
    apt-get -qq -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o APT::Sandbox::User="$(id -un)" \
        -o Dir::State="$apt" -o Dir::State::status="$apt/status" -o Dir::Cache="$apt" "$@"
}

# Fetches exactly these packages: what they depend on for other purposes is not missed.
fetch_arm64_packages() {  # PACKAGE...
    local place=$PWD/$arm64_debian
    mkdir -p "$place"/{packages,apt/lists/partial,apt/archives/partial}
    : >"$place/apt/status"
    quietly "Fetching the package lists of AArch64" arm64_apt_get "$place" update
    (cd "$place/packages" && quietly "Fetching $*" arm64_apt_get "$place" download "$@")
}

# All libraries come to lie in one directory, as on the installed system.
unpack_arm64_packages() {
    local sysroot=$arm64_debian/sysroot package link
    mkdir -p "$sysroot/usr/lib"
    ln -s usr/lib "$sysroot/lib"
    for package in "$arm64_debian"/packages/*.deb; do
        dpkg-deb --fsys-tarfile "$package" | tar -x -C "$sysroot" --keep-directory-symlink
    done
    # What links to /lib means the AArch64 one.
    find "$sysroot" -lname '/*' | while IFS= read -r link; do
        ln -sfr "$sysroot$(readlink "$link")" "$link"
    done
}

# Does nothing when the listed packages are there.
prepare_arm64() {
    local -a wanted
    mapfile -t wanted < <(packages_of sysroot)
    if [[ $(cat "$arm64_debian/contents" 2>/dev/null) == "${wanted[*]}" ]]; then return; fi
    rm -rf "$arm64_debian"
    fetch_arm64_packages "${wanted[@]}"
    unpack_arm64_packages
    printf '%s\n' "${wanted[*]}" >"$arm64_debian/contents"
}

# What dpkg would know if the packages were installed beside this machine's own. The tools that make Debian packages
# look there for build dependencies, for the owners of files, and for the versions that libraries are needed in.
describe_arm64_packages() {  # DIRECTORY
    local sysroot=$1/sysroot dpkg=$1/dpkg package
    rm -rf "$dpkg"
    mkdir -p "$dpkg/info" "$dpkg/updates"
    { dpkg --print-architecture && echo arm64; } >"$dpkg/arch"
    cp /var/lib/dpkg/status "$dpkg"
    cp /var/lib/dpkg/info/format "$dpkg/info"
    cp -s /var/lib/dpkg/info/*.{list,shlibs,symbols} "$dpkg/info"
    for package in "$1"/packages/*.deb; do
        case $package in
            *_arm64.deb) describe_arm64_package "$package" "$dpkg" "$sysroot" ;;
            *) describe_common_package "$package" "$dpkg" "$sysroot" ;;
        esac
    done
}

# All of them can be installed beside those of another architecture, which the names of dpkg's files tell.
describe_arm64_package() {  # FILE DPKG SYSROOT
    local info control
    info=$2/info/$(dpkg-deb -f "$1" Package):arm64
    list_unpacked "$1" "$3" >"$info.list"
    for control in shlibs symbols; do
        dpkg-deb --ctrl-tarfile "$1" | tar -x -O "./$control" >"$info.$control" 2>/dev/null || rm "$info.$control"
    done
    { dpkg-deb -f "$1" | sed '1a Status: install ok installed' && echo; } >>"$2/status"
}

# One for all architectures is installed on this machine too; it only has its files a second time.
describe_common_package() {  # FILE DPKG SYSROOT
    local list
    list=$2/info/$(dpkg-deb -f "$1" Package).list
    list_unpacked "$1" "$3" | cat "$list" - >"$list.both"
    mv "$list.both" "$list"
}

# The files of a package, where they have come to lie.
list_unpacked() {  # FILE SYSROOT
    dpkg-deb --fsys-tarfile "$1" | tar -t | sed -E "s#^\./(lib/)#./usr/\1#; s#^\.#$2#; s#/\$##"
}

# Those that ran to their end; a skipped one counts as passed only for ctest itself.
count_passed() {  # LOG
    awk '/^<end of output>$/ { isSkipped = 0 }
        /^Skip / { isSkipped = 1 }
        /^Test Passed\.$/ && !isSkipped { ++count }
        END { print count + 0 }' "$1"
}

test_arm64() {
    prepare_arm64
    configure arm64
    build arm64
    run_tests arm64
    good "AArch64: $(count_passed build/arm64/Testing/Temporary/LastTest.log) tests passed."
}
