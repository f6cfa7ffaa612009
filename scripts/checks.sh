# The checks of ./dev check. Sourced by ./dev.
# shellcheck shell=bash

# A check is a line here and a function check_NAME below.
# name    package groups          what it shows
checks='
format    format                  clang-format and shellcheck have nothing to say
build     build,test,clang        g++ and clang++ compile everything without a warning
unit      build,test              every test passes
asan      build,test              ... also with AddressSanitizer and UndefinedBehaviorSanitizer
tsan      build,test,tsan         ... also with ThreadSanitizer
tidy      build,test,clang,tidy   clang-tidy has nothing to say about the library and its neighbours
symbols   build,test              the libraries export and import exactly the listed names
fuzz      build,fuzz              the fuzzers find nothing, neither in their seeds nor in a few seconds of their own
install   build                   an outside project builds against the installed package
'
mapfile -t all_checks < <(table_rows "$checks" | cut -d' ' -f1)

check_format() {
    local -a files scripts
    mapfile -t files < <(source_files)
    clang-format --dry-run -Werror "${files[@]}"
    mapfile -t scripts < <(shell_scripts)
    shellcheck --external-sources --check-sourced "${scripts[@]}"
    note "${#files[@]} C and C++ files, ${#scripts[@]} scripts"
}

check_build() {
    local preset
    local -a strict=(-DCMAKE_COMPILE_WARNING_AS_ERROR=ON)
    for preset in default clang; do
        configure "$preset"
        build "$preset"
    done
}

check_unit() {
    configure default
    build default
    run_tests default
}

check_asan() {
    configure asan
    build asan
    run_tests asan
}

check_tsan() {
    local -a launcher=()
    # Kernels that put more than 28 random bits into an address are beyond this ThreadSanitizer.
    if (($(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 32) > 28)); then
        launcher=(setarch --addr-no-randomize)
        if ! "${launcher[@]}" true 2>/dev/null; then
            note "skipped: vm.mmap_rnd_bits is above 28, and setarch may not switch the random addresses off"
            return 0
        fi
    fi
    configure tsan
    build tsan
    run_tests tsan
}

check_tidy() {
    local -a sources
    mapfile -t sources < <(source_files | grep -E '^(BaseAPI|platform)/.*\.(c|cpp)$')
    configure clang
    note "Reading ${#sources[@]} sources ..."
    printf '%s\0' "${sources[@]}" | xargs -0 -n 1 -P "$(nproc)" clang-tidy -p build/clang --quiet \
        2> >(grep -vE 'warnings? generated\.$' >&2)
}

# Both kinds of build, since the optimiser and the fortified headers change which names are imported.
check_symbols() {
    local preset
    for preset in release debug; do
        configure "$preset"
        build "$preset" VFileSys VCopyFileListIni vfilelist
        tests/symbols/check.sh "build/$preset/BaseAPI/VFileSys/libVFileSys.so" \
            "build/$preset/BaseAPI/VCopyFileListIni/VCopyFileListIni" \
            "build/$preset/BaseAPI/VFileList/vfilelist"
    done
}

check_fuzz() {
    prepare_fuzzers
    run_fuzz_seeds "${all_fuzz_targets[@]}"
    fuzz 6 "${all_fuzz_targets[@]}"
}

check_install() {
    configure release
    build release
    tests/consumer/check.sh . build/release build/install
}

# Those that are run; what they source is read along with them.
shell_scripts() {
    printf '%s\n' dev .ci/run
    find scripts tests -name '*.sh' -perm -u+x | sort
}

# The checks that the arguments choose: all, those named, or all but those named with a '^'.
chosen_checks() {
    local argument check
    local -A named=() dropped=()
    for argument in "$@"; do
        check=${argument#^}
        groups_of "$checks" "$check" >/dev/null || die "no check '$check'; there are: ${all_checks[*]}"
        if [[ $argument == ^* ]]; then dropped[$check]=1; else named[$check]=1; fi
    done
    for check in "${all_checks[@]}"; do
        if [[ -v dropped[$check] ]]; then continue; fi
        if ((${#named[@]} == 0)) || [[ -v named[$check] ]]; then echo "$check"; fi
    done
}

# Stops at the first check that fails; `check` is its name then.
run_checks() {
    local chosen groups
    local -a passed=() skipped=()
    chosen=$(chosen_checks "$@")
    trap 'if [[ -n ${check:-} ]]; then printf "%s\n" "${red}Check $check failed.$plain" >&2; fi' EXIT
    for check in "${all_checks[@]}"; do
        if ! grep -qx "$check" <<<"$chosen"; then
            skipped+=("$check")
            continue
        fi
        heading "Check $check: $(description_of "$checks" "$check")"
        groups=$(groups_of "$checks" "$check")
        # shellcheck disable=SC2086  # the groups are separate arguments
        install_packages $groups
        "check_$check"
        passed+=("$check")
    done
    check=''
    printf '\n'
    if ((${#skipped[@]} > 0)); then note "Not asked for: ${skipped[*]}"; fi
    good "Passed: ${passed[*]}"
}
