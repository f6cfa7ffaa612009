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

step "install, and run the installed tools"
quietly cmake --install "$build" --prefix "$work/prefix"
run_tool "$work/prefix/bin/VCopyFileListIni"
run_vfilelist "$work/prefix/bin/vfilelist"

step "an outside project finds the package, builds against it and runs"
configure "$source/tests/consumer/project" "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix"
quietly cmake --build "$work/consumer"
mkdir "$work/consumer-data"
quietly "${emulator[@]}" "$work/consumer/consumer" "$work/consumer-data"

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

step "the outside project builds against that library, and finds its neighbours"
quietly cmake --install "$work/product" --prefix "$work/product-prefix"
configure "$source/tests/consumer/project" "$work/product-consumer" \
    -DCMAKE_PREFIX_PATH="$work/product-prefix;$work/prefix"
quietly cmake --build "$work/product-consumer"
mkdir "$work/product-consumer-data"
# Where its neighbours lie, the product tells its loader.
neighbours=$(dirname "$(find "$work/prefix" -name libVLogger.so)")
quietly env LD_LIBRARY_PATH="$neighbours" \
    "${emulator[@]}" "$work/product-consumer/consumer" "$work/product-consumer-data"

step "the package runs from another place"
mkdir "$work/elsewhere"
cp -a "$work/prefix" "$work/elsewhere/moved"
rm -r "$work/prefix"
run_tool "$work/elsewhere/moved/bin/VCopyFileListIni"
run_vfilelist "$work/elsewhere/moved/bin/vfilelist"
