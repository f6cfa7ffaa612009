# Debian packages. Sourced by ./dev.
# shellcheck shell=bash

# ---------------------------------------------------------------------------------------------- building

# Those that ./dev package builds for.
package_architectures=(amd64 arm64)

is_native() { [[ $1 == "$(dpkg --print-architecture)" ]]; }  # ARCHITECTURE

packages_of_architecture() { printf 'build/packages/%s' "$1"; }

changelog_field() { dpkg-parsechangelog --show-field "$1"; }  # FIELD

# The tree as git would keep it: packages are built from nothing else, and never in place. Git keeps no times, and a
# package only those that are older than its changelog, so all files get that one. The source package would keep the
# modes that the umask leaves, so all get those that a checkout of root has.
export_sources() {  # DIRECTORY
    mkdir -p "$1"
    {
        git ls-files --cached --others --exclude-standard 2>/dev/null | grep . ||
            find . \( -path ./build -o -path ./.git \) -prune -o -type f -printf '%P\n'
    } | while IFS= read -r file; do
        if [[ -e $file ]]; then printf '%s\n' "$file"; fi
    done | tar -c --no-recursion --mtime="@$(changelog_field Timestamp)" -T - | tar -x -C "$1"
    chmod -R u=rwX,go=rX "$1"
}

# Packages for AArch64 are built with a copy of those that lie unpacked below build/, and with what dpkg has to know
# about them. Their place is kept out of what is built. Sets `environment` and `options` of its only caller.
set_cross_environment() {  # SOURCES
    local sysroot place=$1/build/arm64/debian
    prepare_arm64
    mkdir -p "$place"
    cp -a "$arm64_debian"/{packages,sysroot} "$place"
    describe_arm64_packages "$place"
    sysroot=$place/sysroot
    environment=(
        CMAKE_TOOLCHAIN_FILE="$1/cmake/arm64.cmake"
        DEB_CFLAGS_APPEND="-ffile-prefix-map=$sysroot=" DEB_CXXFLAGS_APPEND="-ffile-prefix-map=$sysroot="
        DPKG_ADMINDIR="$place/dpkg"
        VFILESYS_LIBRARIES="$sysroot/usr/lib/aarch64-linux-gnu"
    )
    options=(--build=any --host-arch arm64 --admindir="$place/dpkg")
}

build_debian_packages() { (cd "$1" && "${@:2}"); }  # DIRECTORY COMMAND...

# Makes packages of the sources in WORK/vfilesys; they lie in WORK then, and their bill of materials beside them. The
# source package and the documents come with those for this machine: what a cross build needs lies among its sources.
make_packages() {  # ARCHITECTURE WORK [LAUNCHER...]
    local architecture=$1 work=$2
    local -a environment=() options=(--build=full)
    if ! is_native "$architecture"; then
        [[ $architecture == arm64 ]] || die "this machine cannot build for $architecture"
        set_cross_environment "$work/vfilesys"
    fi
    quietly "Building the packages for $architecture in $work" build_debian_packages "$work/vfilesys" "${@:3}" \
        env "${environment[@]}" dpkg-buildpackage --unsigned-source --unsigned-changes --unsigned-buildinfo "${options[@]}"
    env "${environment[@]}" /usr/bin/python3 -B scripts/bill_of_materials.py "$work"/vfilesys/obj-* "$work"/*.deb \
        >"$work/vfilesys_$(changelog_field Version)_$architecture.spdx.json"
}

package() {  # ARCHITECTURE
    local work=build/packages/making/$1 place
    place=$(packages_of_architecture "$1")
    rm -rf "$work" "$place"
    export_sources "$work/vfilesys"
    make_packages "$1" "$PWD/$work"
    mkdir -p "$place"
    mv "$work"/vfilesys_* "$work"/*.deb "$place"
    rm -rf "$work"
    good "$1: $(find "$place" -name '*.deb' | wc -l) packages and their bill of materials are in $place."
}

# The same packages once more, as somebody else would make them: elsewhere, in a year, in another zone, with another
# umask.
package_again() {  # ARCHITECTURE WORK
    (umask 077 && export_sources "$2/vfilesys" && make_packages "$1" "$2" faketime -f '+400d' env TZ=Pacific/Apia)
}

# A line for each file; fails when one differs.
compare_packages() {  # PLACE OTHER-PLACE
    local file name differing=0
    for file in "$1"/*.deb "$1"/*.spdx.json "$1"/*.dsc "$1"/*.tar.xz; do
        [[ -e $file ]] || continue  # only this machine's have a source package
        name=${file##*/}
        if cmp -s "$file" "$2/$name"; then
            printf '  %.16s  %s\n' "$(sha256sum <"$file")" "$name"
        else
            printf '  %sdiffers           %s%s\n' "$red" "$name" "$plain"
            differing=$((differing + 1))
        fi
    done
    ((differing == 0))
}

verify_packages() {  # ARCHITECTURE
    local again
    again=$(mktemp -d "${TMPDIR:-/tmp}/vfilesys-packages-built-again-XXXXXX")
    package_again "$1" "$again"
    note "Built twice, in different places and at different times, with these SHA-256 sums:"
    compare_packages "$(packages_of_architecture "$1")" "$again" || die "not the same again; see $again"
    rm -rf "$again"
}

# ---------------------------------------------------------------------------------------------- checking

lint_packages() {  # ARCHITECTURE
    note "Reading the packages for $1 ..."
    # lintian would rather not be root, and that is all it has against it. The compiler keeps short texts in pieces that
    # overlap: lintian reads "can't fol" and "llow it" as a misspelt word.
    lintian --allow-root --display-info --pedantic --fail-on error,warning,info,pedantic \
        --suppress-tags spelling-error-in-binary \
        "$(packages_of_architecture "$1")"/*.changes
    note "lintian is content; $(cat debian/*.lintian-overrides | grep -cv '^#') overrides have their reasons."
}

# Without installing them; those for AArch64 run in the emulator.
look_into_packages() {  # ARCHITECTURE
    local -a environment=() emulator=()
    if ! is_native "$1"; then
        environment=(OBJDUMP=aarch64-linux-gnu-objdump)
        emulator=("$PWD/cmake/arm64-emulator.sh")
    fi
    env "${environment[@]}" tests/package/contents.sh . "$(packages_of_architecture "$1")" "$1" "${emulator[@]}"
}

install_packages_elsewhere() {  # ARCHITECTURE
    if ((EUID != 0)); then
        note "skipped: it takes root to make a clean Debian and install the packages there"
        return
    fi
    note "Installing the packages in a clean Debian ..."
    tests/package/install.sh . "$(packages_of_architecture "$1")"
}

# All are made twice; this machine's are installed, the others have to be as good without.
check_packages() {
    local architecture
    for architecture in "${package_architectures[@]}"; do
        package "$architecture"
        lint_packages "$architecture"
        look_into_packages "$architecture"
        verify_packages "$architecture"
        if is_native "$architecture"; then install_packages_elsewhere "$architecture"; fi
    done
}
