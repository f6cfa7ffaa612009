#!/usr/bin/env bash
# check.sh SOURCE BUILD WORK [EMULATOR...]: installs the finished build tree BUILD of the source tree SOURCE into a
# fresh directory WORK and uses the package the way its users do. What it builds is run by the EMULATOR, if it has to.
set -euo pipefail

source=$(readlink -f "$1")
build=$(readlink -f "$2")
mkdir -p "$3"
work=$(readlink -f "$3")
emulator=("${@:4}")
rm -rf "${work:?}"/*

step() { printf -- '- %s\n' "$*"; }

fail() {
    printf 'FAILED: %s\n' "$*"
    exit 1
}

# The command's words are worth reading only when it fails.
quietly() { "$@" >"$work/output.txt" 2>&1 || { cat "$work/output.txt"; fail "$*"; }; }

configure() {  # SOURCE BUILD OPTION...
    quietly cmake -S "$1" -B "$2" -G Ninja -DCMAKE_BUILD_TYPE=Release "${@:3}"
}

# Takes a package of one file through all three passes with the tool, and looks at the result after each.
run_tool() {  # TOOL
    local tool=$1 trial=$work/trial
    rm -rf "$trial"
    mkdir -p "$trial/package/Common/bin" "$trial/target"
    printf '[Package_Intall_Type]\nPackageIntallType=Server\n[Server]\nBinFiles=%s\n[BinFiles]\nf1=bin/tool\n' \
        "$trial/target" >"$trial/package/filelist.ini"
    echo new >"$trial/package/Common/bin/tool"
    echo old >"$trial/target/tool"

    run_pass "$tool" -rename
    [[ $(cat "$trial/target/tool.bak") == old && ! -e $trial/target/tool ]] || fail "-rename made no backup"
    run_pass "$tool" -copy
    [[ $(cat "$trial/target/tool") == new ]] || fail "-copy did not bring the new file"
    run_pass "$tool" -clean
    [[ $(ls "$trial/target") == tool ]] || fail "-clean left the backup"
    grep -q 'Successfully completed' "$trial/log/TarnFramework_upgrade.log" || fail "no log was written"
}

# The installed vfilelist finds that the tool's work is done.
run_vfilelist() {  # VFILELIST
    quietly env -u LD_LIBRARY_PATH "${emulator[@]}" "$1" verify "$work/trial/package/filelist.ini" --expect cleaned
}

run_pass() {  # TOOL OPERATOR
    quietly env -u LD_LIBRARY_PATH VLOGGER_DIRECTORY="$work/trial/log" \
        "${emulator[@]}" "$1" "$2" "$work/trial/package/filelist.ini"
}

# Builds a program as the pkg-config file of the package says. Its own place is all that the package knows.
compile_with_pkg_config() {  # PREFIX PROGRAM SOURCE OPTION...
    local -a flags linker_flags
    read -ra flags < <(pkg_config "$1" --cflags --libs)
    read -ra linker_flags <<<"${LDFLAGS:-}"
    quietly "${CXX:-c++}" -o "$2" "$3" "${flags[@]}" "${linker_flags[@]}" "${@:4}"
}

pkg_config() {  # PREFIX OPTION...
    PKG_CONFIG_LIBDIR=$(dirname "$(find "$1" -name VFileSys.pc)") pkg-config "${@:2}" VFileSys
}

# Every variable of the file is a place in the package.
check_pkg_config() {  # PREFIX
    local version
    version=$(sed -nE 's/^project\(.* VERSION ([0-9.]+).*/\1/p' "$source/CMakeLists.txt")
    [[ $(pkg_config "$1" --modversion) == "$version" ]] || fail "the pkg-config file is not of version $version"
    [[ $(readlink -f "$(pkg_config "$1" --variable=prefix)") == "$1" ]] || fail "the pkg-config file has another prefix"
    [[ -e $(pkg_config "$1" --variable=libdir)/libVFileSys.so ]] || fail "the pkg-config file has another libdir"
    [[ -e $(pkg_config "$1" --variable=includedir)/VFileSys/VPath.h ]] || fail "the pkg-config file has another includedir"
}

# The outside project without CMake. The library knows where its neighbours are.
run_with_pkg_config() {  # PREFIX
    local libraries
    check_pkg_config "$1"
    libraries=$(pkg_config "$1" --variable=libdir)
    rm -rf "$work/plain-data"
    mkdir "$work/plain-data"
    compile_with_pkg_config "$1" "$work/plain" "$source/tests/consumer/project/main.cpp"
    quietly env LD_LIBRARY_PATH="$libraries" "${emulator[@]}" "$work/plain" "$work/plain-data"
}

# What a reader of an example would type: the line of its first comment.
line_of_example() { awk '!/^\/\// { exit } $2 == "c++" { sub("^// +", ""); print }' "$1"; }  # FILE

# Runs the line as it stands. Only the compiler may be another one.
compile_as_written() (  # PREFIX DIRECTORY LINE
    # shellcheck disable=SC2317  # the line calls it
    c++() {
        local -a linker_flags
        read -ra linker_flags <<<"${LDFLAGS:-}"
        command "${CXX:-c++}" "$@" "${linker_flags[@]}"
    }
    PKG_CONFIG_LIBDIR=$(dirname "$(find "$1" -name VFileSys.pc)")
    export PKG_CONFIG_LIBDIR
    cd "$2"
    eval "$3"
)

build_examples() {  # PREFIX
    local example line directory=$1/share/doc/VFileSys/examples
    configure "$directory" "$work/examples" -DCMAKE_PREFIX_PATH="$1"
    quietly cmake --build "$work/examples"
    cp -r "$directory" "$work/examples-by-hand"
    for example in "$directory"/*.cpp; do
        example=$(basename "$example" .cpp)
        line=$(line_of_example "$directory/$example.cpp")
        [[ -x $work/examples/$example ]] || fail "the CMakeLists.txt of the examples leaves out $example"
        quietly compile_as_written "$1" "$work/examples-by-hand" "${line:-"no line builds $example"}"
        [[ -x $work/examples-by-hand/$example ]] || fail "the line builds no $example: $line"
    done
}

# What people read, and what their shell reads.
check_documents() {  # PREFIX
    local file
    for file in "$source"/docs/man/*; do
        cmp -s "$file" "$1/share/man/man${file##*.}/${file##*/}" || fail "${file##*/} is not installed"
    done
    for file in "$source"/examples/{CMakeLists.txt,*.cpp,ansible/*}; do
        cmp -s "$file" "$1/share/doc/VFileSys/${file#"$source/"}" || fail "${file#"$source/"} is not installed"
    done
    # The headers and the programs name documents, and these refer to others.
    while read -r file; do
        cmp -s "$source/docs/$file" "$1/share/doc/VFileSys/$file" || fail "$file, which is named, is not installed"
    done < <({
        cat "$1/include/VFileSys"/V*.h && "${emulator[@]}" "$1/bin/vfilelist" check --help
        grep -hoE '\]\([a-z-]+\.md' "$1"/share/doc/VFileSys/*.md
    } | grep -oE '[a-z-]+\.md' | sort -u)
    cmp -s "$source/LICENSE" "$1/share/doc/VFileSys/LICENSE" || fail "the licence is not installed"
    for file in "$source"/docs/third-party/*; do
        cmp -s "$file" "$1/share/doc/VFileSys/third-party/${file##*/}" || fail "the notices ${file##*/} are not installed"
    done
    quietly "$source/tests/completions/check.sh" "$1/share/bash-completion/completions"
}

step "install, and run the installed tools"
quietly cmake --install "$build" --prefix "$work/prefix"
run_tool "$work/prefix/bin/VCopyFileListIni"
run_vfilelist "$work/prefix/bin/vfilelist"

step "manual pages, examples and completions are in their places"
check_documents "$work/prefix"

step "an outside project finds the package, builds against it and runs"
configure "$source/tests/consumer/project" "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix"
quietly cmake --build "$work/consumer"
mkdir "$work/consumer-data"
quietly "${emulator[@]}" "$work/consumer/consumer" "$work/consumer-data"

step "a program's own logger, built against the installed header, gets the library's lines"
quietly "${emulator[@]}" "$work/consumer/own_logger"

step "the outside project builds with pkg-config"
run_with_pkg_config "$work/prefix"

step "the installed examples build, all with CMake and each by the line of its comment"
build_examples "$work/prefix"

step "the library builds on installed neighbours instead of its own stand-ins"
configure "$source" "$work/product" -DVFILESYS_NEIGHBOURS=product -DVFILESYS_BUILD_TESTS=OFF \
    -DCMAKE_PREFIX_PATH="$work/prefix"
quietly cmake --build "$work/product"
built=$(find "$work/product" -name 'lib*.so*' -printf '%f\n')
[[ $built == libVFileSys.so ]] || fail "built besides the library: $built"
if readelf --syms --wide "$work/product/BaseAPI/VFileSys/libVFileSys.so" |
    awk '$7 != "UND" && $8 ~ /^(_ZN.*(4VIni|7VLogger)|(strn?cpy|mem(set|move)|sn?printf)_s$)/ { found = 1 } END { exit !found }'; then
    fail "the library holds code of its neighbours"
fi
run_tool "$work/product/BaseAPI/VCopyFileListIni/VCopyFileListIni"

step "installed to another place than its neighbours it finds them, and so do the tools"
quietly cmake --install "$work/product" --prefix "$work/product-prefix"
run_tool "$work/product-prefix/bin/VCopyFileListIni"
run_vfilelist "$work/product-prefix/bin/vfilelist"

step "outside projects build against that library, with CMake and with pkg-config, and run"
# A cross build finds nothing below places that it is not told.
configure "$source/tests/consumer/project" "$work/product-consumer" \
    -DCMAKE_PREFIX_PATH="$work/product-prefix${emulator:+;$work/prefix}"
quietly cmake --build "$work/product-consumer"
mkdir "$work/product-consumer-data"
quietly "${emulator[@]}" "$work/product-consumer/consumer" "$work/product-consumer-data"
quietly "${emulator[@]}" "$work/product-consumer/own_logger"
run_with_pkg_config "$work/product-prefix"
compile_with_pkg_config "$work/product-prefix" "$work/product-example" "$source/examples/FirewallService.cpp" -lVLogger

step "the package runs from another place"
mkdir "$work/elsewhere"
cp -a "$work/prefix" "$work/elsewhere/moved"
rm -r "$work/prefix"
run_tool "$work/elsewhere/moved/bin/VCopyFileListIni"
run_vfilelist "$work/elsewhere/moved/bin/vfilelist"
run_with_pkg_config "$work/elsewhere/moved"
