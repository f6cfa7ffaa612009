# The checks of ./dev check. Sourced by ./dev.
# shellcheck shell=bash

# A check is a line here and a function check_NAME below. They run in this order, the quick ones first.
# name    package groups          what it shows
checks='
format    format                  The sources are laid out as clang-format does, and shellcheck finds nothing in the scripts
build     build,test,clang        g++ and clang++ compile everything without a warning
unit      build,test,fleet        Every test passes
hardening build                   The installed files have the protections that the build asks for
abi       build,test,abi          The binary interface is the one that programs rely on
symbols   build,test              The libraries export and import exactly the listed names
man       build,test,man          The manual pages and completions agree with the headers and the programs
docs      docs,browser            The site has every public name, hazard and document, and none of its links is dead
install   build,install           Outside projects build against the installed package
package   build,package,arm64,cross The Debian packages are the same when built again; they install, work and purge without a trace
boot      build,package,boot      After a cut-off upgrade the machine boots with the old files or the new ones before any service starts
powerloss build,test,powerloss    Wherever the power is cut, an upgrade leaves the old files or the new ones; each sync is needed
faults    build,test              Every call of every operation fails in turn, and nothing is lost or left behind
crash     build,test              An upgrade survives a kill before each of its system calls
tidy      build,test,clang,tidy   clang-tidy finds nothing in the library and its neighbours
fuzz      build,fuzz              The fuzzers find nothing in their seeds, nor in a few seconds of new inputs
delivered build,test,fleet        Every test passes on the libraries as they are installed
asan      build,test              The tests pass with AddressSanitizer and UndefinedBehaviorSanitizer
coverage  build,test,coverage     The tests reach every line and branch except those that nothing can reach
valgrind  build,test,valgrind     Memcheck finds no leak and no invalid access in the tests, the tool and the stand-ins
tsan      build,test,tsan         The tests pass with ThreadSanitizer
arm64     build,test,arm64        The tests pass on AArch64, in the emulator
mutation  build,test,mutation     The tests notice small faults in the sources (a sample; MUTANTS=all: every one)
soak      build,test,powerloss,arm64 The long tests pass with a hundred times the repetitions: paths, directories, long use, kills, power cuts
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
    # Threads are the library's, the stand-ins' and their users' business: vfilelist has none.
    local -a programs=(vfilesys_tests platform_tests process_tests fault_tests example_tests)
    local -a of_programs=(--label-regex "^($(IFS='|' && echo "${programs[*]}"))\$")
    configure tsan
    build tsan "${programs[@]}"
    # Left out by the preset: long sweeps of what has no threads.
    run_tests tsan "${of_programs[@]}"
}

check_coverage() {
    local report=build/coverage/coverage.json
    # Each case of a switch has a line of its own, which counts; its branch for values that the enumeration
    # lacks does not, nor the one for exceptions of types that a catch does not name.
    local -a options=(
        --root . --filter BaseAPI/ --gcov-executable "$PWD/tests/coverage/gcov.sh"
        --exclude-throw-branches --exclude-unreachable-branches
        --exclude-branches-by-pattern '.*(\bswitch \(|^ *\} catch \().*'
    )
    configure coverage
    build coverage
    find build/coverage -name '*.gcda' -delete
    # Left out by the preset: tests that kill programs, since these take their counters along; those that limit the
    # size of files, the counters' too; and the sweep over all calls of vfilelist, which reaches nothing new and would
    # meet the calls that write counters. Other such sweeps are not even built.
    run_tests coverage
    gcovr "${options[@]}" --json "$report" build/coverage
    /usr/bin/python3 scripts/coverage.py "$report" tests/coverage/unreachable.txt
}

check_arm64() { test_arm64; }

# Another sample with each commit, the same one for everybody.
check_mutation() {
    local -a sample=(--sample 30 --seed "$(git rev-parse HEAD)")
    if [[ ${MUTANTS:-} == all ]]; then sample=(); fi
    # Broken code runs there, or not at all.
    if ! bwrap --ro-bind / / --dev /dev --proc /proc --unshare-pid --unshare-net --unshare-ipc true; then
        note "skipped: this machine allows no private mount namespace"
        return 0
    fi
    /usr/bin/python3 -B scripts/mutation.py tests/mutation/survivors.txt "${sample[@]}"
}

check_tidy() {
    local -a sources
    mapfile -t sources < <(source_files | grep -E '^(BaseAPI|platform)/.*\.(c|cpp)$')
    configure clang
    note "Reading ${#sources[@]} sources ..."
    printf '%s\0' "${sources[@]}" | xargs -0 -n 1 -P "$(nproc)" clang-tidy -p build/clang --quiet \
        2> >(grep -vE 'warnings? generated\.$' >&2)
}

# All kinds of build, since the optimiser and the fortified headers change which names are imported. The tests have a
# debug build.
check_symbols() {
    configure default
    build default VFileSys VCopyFileListIni vfilelist
    quietly "Looking at the default build, one for debugging, one for large files" \
        ctest --preset default --tests-regex '^symbols' --no-tests=error
    configure release
    build release VFileSys VCopyFileListIni vfilelist
    tests/symbols/check.sh build/release/BaseAPI/VFileSys/libVFileSys.so \
        build/release/BaseAPI/VCopyFileListIni/VCopyFileListIni build/release/BaseAPI/VFileList/vfilelist
}

# With a seed, so that a change is judged by what it does and not by the luck of the day; ./dev fuzz tries its luck.
check_fuzz() {
    prepare_fuzzers
    run_fuzz_seeds "${all_fuzz_targets[@]}"
    fuzz 6 1 "${all_fuzz_targets[@]}"
}

# The release as it is installed, in build/installed.
install_release() {
    configure release
    build release
    rm -rf build/installed
    quietly "Installing into build/installed" cmake --install build/release --prefix "$PWD/build/installed"
}

installed_binaries() { find build/installed \( -name '*.so' -o -path '*/bin/*' \) -type f | sort; }

check_hardening() {
    local -a binaries
    install_release
    mapfile -t binaries < <(installed_binaries)
    tests/hardening/check.sh "${binaries[@]}"
}

check_abi() {
    configure default
    build default VFileSys
    tests/abi/check.sh build/default/BaseAPI/VFileSys/libVFileSys.so BaseAPI/VFileSys/include
}

# Runs a test program whole, shows what it covered, and adds it up. Its whole log is shown only if it fails.
run_sweep() {  # PROGRAM PATTERN
    local log status=0
    log=$(mktemp)
    "$1" >"$log" 2>&1 || status=$?
    if ((status != 0)); then cat "$log" >&2; fi
    grep -hE "$2" "$log" | sort -u || true
    awk -v pattern="$2" '
        $0 ~ pattern && !seen[$0]++ {
            for (i = 2; i <= NF; ++i) {
                if ($i ~ /^points/) points += $(i - 1)
                if ($i ~ /^runs/) runs += $(i - 1)
            }
        }
        END { if (runs > 0) printf "%d points, %d runs\n", points, runs }' "$log"
    grep -E '^\[  (PASSED|SKIPPED|FAILED) ' "$log" | tail -1
    rm "$log"
    return "$status"
}

check_faults() {
    configure default
    build default fault_tests
    run_sweep build/default/tests/fault_tests '^Faults: '
}

check_crash() {
    configure default
    build default killed_upgrade_tests killed_transaction_tests
    run_sweep build/default/tests/killed_upgrade_tests 'killed at system calls'
    run_sweep build/default/tests/killed_transaction_tests ' points, '
}

check_powerloss() {
    configure default
    build default VCopyFileListIni vfilelist
    tests/powerloss/check.sh build/default
}

check_soak() {
    configure default
    build default vfilesys_tests vfilelist_tests killed_upgrade_tests killed_transaction_tests transaction_tests \
        state_space_tests
    VFILESYS_TEST_SCALE=100 build/default/tests/vfilesys_tests \
        --gtest_filter='VPathTest.AgreesWith*:*Exhaustive*:*WithoutGrowing:*FromManyThreads*:ConcurrencyTest.Long*'
    VFILESYS_TEST_SCALE=100 build/default/tests/vfilelist_tests --gtest_filter='MakeAgreementTest.*'
    VFILESYS_TEST_SCALE=100 build/default/tests/killed_upgrade_tests \
        --gtest_filter='KilledLongUpgradeTest.*:*.EndsWellWherever*'
    VFILESYS_TEST_SCALE=100 build/default/tests/killed_transaction_tests --gtest_filter='-*.*WhateverFails'
    VFILESYS_TEST_SCALE=100 build/default/tests/transaction_tests --gtest_filter='UpAndDownTest.*'
    VFILESYS_TEST_SCALE=100 build/default/tests/state_space_tests
    VFILESYS_TEST_SCALE=10 build/default/tests/killed_transaction_tests --gtest_filter='*.*WhateverFails'
    VFILESYS_TEST_SCALE=100 build/default/tests/vfilelist_tests --gtest_filter='TransactionFaultsTest.*Killed*'
    build default
    VFILESYS_TEST_SCALE=100 tests/boot/command.sh . build/default
    prepare_arm64
    configure arm64
    build arm64 vfilelist_tests
    VFILESYS_TEST_SCALE=100 build/arm64/emulated/vfilelist_tests --gtest_filter='TransactionFaultsTest.*Killed*'
    tests/powerloss/check.sh build/default --states 10000 --most 100000
}

# The tests' own heap counter steps aside for memcheck's. What is not ours and only started by tests is not watched,
# with all that it starts in its turn, nor what runs from an installed release: a test looks for it, and would find
# memcheck. A copy that a signal ends in its middle closes nothing: its test is left out.
under_valgrind() {  # PROGRAM LOGS
    valgrind --quiet --soname-synonyms=somalloc=NONE --leak-check=full --errors-for-leak-kinds=definite,indirect \
        --track-fds=yes --error-exitcode=99 --trace-children=yes --trace-children-skip='/bin/*,/usr/bin/*,*/installed/*' \
        --log-file="$PWD/$2/$1.%p" "build/default/tests/$1" --gtest_brief=1 \
        --gtest_filter=-VCopyFileTest.IsKilledAtTheLimit* >"$2/$1.out" 2>&1
}

# What memcheck's logs have of descriptors that a process had opened itself and left open. This is no error to it. The
# log of a process that does not end it stays open: it outlives everything that may still log.
left_open() {  # LOG...
    awk '/ Open (file descriptor|AF_)/ {
        what = $0
        getline
        if (!/inherited from parent/ && what !~ /\/a\.log$/) print FILENAME ":" what
    }' "$@"
}

check_valgrind() {
    local program logs=build/default/valgrind
    local -A running=()
    configure default
    build default
    rm -rf "$logs"
    mkdir -p "$logs"
    # vfilelist forks the passes, which end otherwise under memcheck; AddressSanitizer watches it.
    for program in vfilesys_tests platform_tests process_tests; do
        note "$program ..."
        under_valgrind "$program" "$logs" &
        running[$program]=$!
    done
    for program in "${!running[@]}"; do
        wait "${running[$program]}" || { cat "$logs/$program.out" "$logs/$program".[0-9]* >&2; return 1; }
        grep -E '^\[  (PASSED|SKIPPED) ' "$logs/$program.out" || true
    done
    if left_open "$logs"/*.[0-9]* | grep . >&2; then return 1; fi
    note "$(find "$logs" -name '*.[0-9]*' | wc -l) processes watched"
}

# The libraries come from the installation, whatever else is the default build's. vfilelist has its code in itself: its
# tests look at the same as before.
check_delivered() {
    local -a programs=(vfilesys_tests platform_tests process_tests fault_tests example_tests)
    local -a of_programs=(--label-regex "^($(IFS='|' && echo "${programs[*]}"))\$")
    install_release
    configure default
    build default "${programs[@]}"
    LD_LIBRARY_PATH=$PWD/build/installed/lib run_tests default "${of_programs[@]}"
}

check_man() {
    configure default
    build default vfilelist
    tests/man/check.sh . build/default/BaseAPI/VFileList/vfilelist
    tests/completions/check.sh completions build/default/BaseAPI/VFileList/vfilelist
}

check_docs() {
    build_docs
    tests/docs/check.sh "$site"
}

check_install() {
    configure release
    build release
    tests/consumer/check.sh . build/release build/install
}

check_package() { check_packages; }

# On the packages as they are made of the sources now.
check_boot() {
    local architecture
    architecture=$(dpkg --print-architecture)
    if ((EUID != 0)) || ! systemd-nspawn --quiet --directory=/ --volatile=yes --register=no --keep-unit true; then
        note "skipped: it takes root, and a machine on which systemd-nspawn can start a container"
        return 0
    fi
    package "$architecture"
    tests/boot/check.sh . "$(packages_of_architecture "$architecture")"
}

# Those that are run, and those that users source; what they source is read along with them.
shell_scripts() {
    printf '%s\n' dev .ci/run
    find cmake scripts tests -name '*.sh' -perm -u+x | sort
    find completions -type f | sort
}

# The checks that the arguments choose: all, those named, or all but those named with a '^'.
chosen_checks() {
    local argument check
    local -A named=() dropped=()
    for argument in "$@"; do
        check=${argument#^}
        has_row "$checks" "$check" || die "unknown check '$check'; there are: ${all_checks[*]}"
        if [[ $argument == ^* ]]; then dropped[$check]=1; else named[$check]=1; fi
    done
    for check in "${all_checks[@]}"; do
        if [[ -v dropped[$check] ]]; then continue; fi
        if ((${#named[@]} == 0)) || [[ -v named[$check] ]]; then echo "$check"; fi
    done
}

# Stops at the first check that fails; `check` is its name then.
run_checks() {
    local chosen groups begun
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
        begun=$SECONDS
        "check_$check"
        passed+=("$check ($((SECONDS - begun)) s)")
    done
    check=''
    printf '\n'
    if ((${#skipped[@]} > 0)); then note "Not asked for: ${skipped[*]}"; fi
    good "Passed: $(printf '%s\n' "${passed[@]}" | paste -sd, | sed 's/,/, /g')"
}
