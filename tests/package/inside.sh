#!/usr/bin/env bash
# inside.sh: tries the packages beside it in a clean Debian that nobody needs afterwards. Run by install.sh there.
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8

trial=$(dirname "$(readlink -f "$0")")
cd "$trial"

step() { printf -- '- %s\n' "$*"; }

fail() {
    printf 'FAILED: %s\n' "$*"
    exit 1
}

# The command's words are worth reading only when it fails.
quietly() { "$@" >"$trial/output" 2>&1 || { cat "$trial/output"; fail "$*"; }; }

install() { quietly apt-get install --yes --no-install-recommends "$@"; }
purge() { quietly apt-get purge --yes --autoremove "$@"; }
is_installed() { [[ $(dpkg-query --show --showformat '${db:Status-Status}' "$1" 2>/dev/null) == installed ]]; }

# All files and links but those that the package system keeps for itself, and what this trial makes.
list_files() {
    find / -xdev \( -path "$trial" -o -path /proc -o -path /sys -o -path /dev -o -path /tmp -o -path /var/cache \
        -o -path /var/log -o -path /var/lib/dpkg -o -path /var/lib/apt \) -prune -o -printf '%p %y %m %l\n' | sort
}

check_nothing_left() {  # LIST-BEFORE
    local difference
    difference=$(diff "$1" <(list_files)) || fail "the packages left, or took, files:"$'\n'"$difference"
    if dpkg-query --list '*vfilesys*' 2>/dev/null | grep -E '^.[^n]'; then fail "dpkg remembers packages"; fi
}

check_documents() {
    local file
    for file in man1/vfilelist.1 man5/vfilelist.5 man7/VFileSys.7 man8/VCopyFileListIni.8; do
        [[ $(zcat "/usr/share/man/$file.gz") == .Dd* ]] || fail "there is no manual page $file"
    done
    for file in VCopyFileListIni vfilelist; do
        # shellcheck disable=SC1090  # what a user's shell does
        [[ $(. "/usr/share/bash-completion/completions/$file"; complete -p "$file") == *"$file" ]] ||
            fail "bash completes nothing behind $file"
    done
}

try_tools() {
    rm -rf upgrade
    ./upgrade.sh "$trial/upgrade" /usr/bin
    quietly vfilelist resume  # makes the directory where vfilelist keeps an open upgrade
}

check_development_documents() {
    local class
    for class in VPath VDir VFile VCompressAndDeCompress VMonitorFiles VFixFirewall; do
        [[ $(zcat "/usr/share/man/man3/$class.3.gz") == .Dd* ]] || fail "there is no manual page $class(3)"
    done
    [[ -e /usr/share/doc/libvfilesys-dev/examples/SafeCopy.cpp ]] || fail "there are no examples"
}

# The outside project is built in both ways, and run.
build_and_run() {
    rm -rf built data
    mkdir data data/cmake data/plain
    quietly cmake -S project -B built
    quietly cmake --build built
    quietly built/consumer "$trial/data/cmake"
    # shellcheck disable=SC2046  # options are separate words
    quietly c++ -o built/plain project/main.cpp $(pkg-config --cflags --libs VFileSys)
    quietly built/plain "$trial/data/plain"
}

# A program that starts the logger itself needs its header and its library as well. The lines of the library's own log
# come from BaseAPI/, as on every machine.
read_library_log() {
    local log=$trial/logged/library.log source
    rm -rf logged
    mkdir logged
    # shellcheck disable=SC2046
    quietly c++ -o built/logged LibraryLog.cpp $(pkg-config --cflags --libs VFileSys) -lVLogger
    quietly built/logged "$trial/logged"
    for source in VDir unix/VCompressAndDeCompress unix/VMonitorFiles; do
        grep -q "(BaseAPI/VFileSys/src/$source.cpp:[0-9]*)$" "$log" || fail "no line of $log comes from $source.cpp"
    done
    if grep -v '(BaseAPI/VFileSys/src/' "$log"; then fail "lines of $log come from elsewhere"; fi
}

# What a product would bring instead of the stand-ins, in a package: for this trial the same files by another owner.
make_product_package() {  # NAME VIRTUAL-NAME FILE...
    local root=$trial/$1 file
    mkdir -p "$root/DEBIAN"
    printf '%s\n' "Package: $1" 'Version: 1' "Architecture: $(dpkg --print-architecture)" \
        'Maintainer: Nobody <nobody@nowhere.example>' "Provides: $2" "Conflicts: $2" "Replaces: $2" \
        'Description: the neighbours of libvfilesys as a product has them' >"$root/DEBIAN/control"
    for file in "${@:3}"; do
        mkdir -p "$root/$(dirname "$file")"
        cp "/$file" "$root/$file"
    done
    quietly dpkg-deb --build "$root"
}

make_product_packages() {
    local libraries
    libraries=usr/lib/$(c++ -print-multiarch)
    make_product_package product-neighbours vfilesys-neighbours "$libraries"/lib{VLogger,VIni,safestr}.so
    make_product_package product-neighbours-dev vfilesys-neighbours-dev usr/include/VFileSys/{VLogger,VIni,safestr}.h
}

step "apt installs the tools with all that they need"
list_files >before
quietly apt-get update
install ./vfilesys-tools_*.deb ./libvfilesys_*.deb ./vfilesys-standins_*.deb
step "their documents and completions are there, and they upgrade"
check_documents
try_tools

step "purged, they leave nothing behind"
rm -rf upgrade
purge vfilesys-tools libvfilesys vfilesys-standins
check_nothing_left before

step "programs are built against the development packages, with CMake and with pkg-config, and run"
install cmake g++ make pkgconf
list_files >before
install ./*.deb
check_development_documents
build_and_run
read_library_log

step "the product's own neighbours replace the stand-ins, and everything stays installed"
make_product_packages
install ./product-neighbours.deb ./product-neighbours-dev.deb
for package in vfilesys-standins vfilesys-standins-dev; do
    if is_installed "$package"; then fail "$package is still installed"; fi
done
for package in libvfilesys libvfilesys-dev vfilesys-tools; do
    is_installed "$package" || fail "$package went away"
done
try_tools
build_and_run
read_library_log

step "the stand-ins replace them in turn"
install ./vfilesys-standins_*.deb ./vfilesys-standins-dev_*.deb
if is_installed product-neighbours; then fail "product-neighbours is still installed"; fi
try_tools

step "purged, all of them leave nothing behind"
purge '?name(vfilesys)'
check_nothing_left before
