# Fuzzing. Sourced by ./dev.
# shellcheck shell=bash

# A target is a line here, a source fuzz/NAME.cpp and seeds in fuzz/corpus/NAME/.
# name           longest input  what is judged
fuzz_targets='
PathResolve     8400  the canonical text of VPath, by a slow model of it
PathJoin        8400  joining paths and taking them apart, by the model
SplitString     4096  SplitString and GetFileName of the upgrade tool, by an obvious one
FileList        4096  the file list that the upgrade tool reads, by what was written
IniParser       8192  VIni on any bytes, by itself and by the sizes of its buffers
Journal         4096  journals and receipts on any bytes, by printing and reading them again
Manifest        4096  manifests on any bytes, by printing and reading them again
GzipDecompress  4096  GzipDecompress on any bytes, by zlib fed byte by byte
GzipRoundTrip   4096  GzipCompress, by GzipDecompress and zlib
CompressString  4096  CompressString, by zlib
ArchiveCommand  1024  the commands of the archive functions and their guard, by a model
TextAndLog      4096  safestr and VLogger, by what texts and log lines have to be
'
mapfile -t all_fuzz_targets < <(table_rows "$fuzz_targets" | cut -d' ' -f1)

# What the fuzzers found lies here until somebody removes it.
fuzz_findings=build/fuzz/findings

fuzz_log() { printf 'build/fuzz/log/%s' "$1"; }

prepare_fuzzers() {
    configure fuzz
    build fuzz fuzzers
    mkdir -p "$fuzz_findings" build/fuzz/log
}

# Becomes the fuzzer of the target; everything that it says goes into its log.
exec_fuzzer() {  # TARGET ARGUMENT...
    local target=$1 longest
    shift
    longest=$(cell_of "$fuzz_targets" "$target" 2)
    # Freed blocks are kept for a while, as many as one input may leave; more would only cost memory.
    export ASAN_OPTIONS=detect_stack_use_after_return=1:strict_string_checks=1:quarantine_size_mb=16
    export UBSAN_OPTIONS=print_stacktrace=1
    exec "build/fuzz/fuzz/$target" -max_len="$longest" -timeout=20 -artifact_prefix="$fuzz_findings/$target-" \
        "$@" >"$(fuzz_log "$target")" 2>&1
}

# The target's own, growing corpus comes first: what is new goes there. With seed 0 the inputs are others each time.
fuzz_for() {  # SECONDS SEED TARGET
    local seconds=$1 seed=$2 target=$3
    local -a dictionary=()
    mkdir -p "build/fuzz/corpus/$target"
    if [[ -e fuzz/dictionaries/$target ]]; then dictionary=(-dict="fuzz/dictionaries/$target"); fi
    exec_fuzzer "$target" -max_total_time="$seconds" -seed="$seed" -print_final_stats=1 "${dictionary[@]}" \
        "build/fuzz/corpus/$target" "fuzz/corpus/$target"
}

fuzz_seeds() { exec_fuzzer "$1" "fuzz/corpus/$1"/*; }

# The row of a target that has ended well: "#1234 DONE cov: 56 ft: 78 corp: 9/1234b ..." is in its log.
print_fuzz_row() {  # SECONDS TARGET
    awk -v target="$2" -v seconds="$1" '
        $2 == "DONE" { runs = substr($1, 2); for (i = 3; i < NF; ++i) value[$i] = $(i + 1) }
        END {
            sub("/.*", "", value["corp:"])
            printf "%-15s %12d executions %8d/s  corpus %5d  coverage %5d edges %6d features\n",
                target, runs, runs / seconds, value["corp:"], value["cov:"], value["ft:"]
        }' "$(fuzz_log "$2")"
}

# The line of all; reads the rows.
print_fuzz_total() {
    awk '{ runs += $2; corpus += $6 }
        END { printf "%-15s %12d executions %10s  corpus %5d\n", NR " targets", runs, "", corpus }'
}

print_nothing() { :; }

# Tells of a target that has not ended well, and of its reproducer.
report_finding() {  # TARGET
    local target=$1 log reproducer
    log=$(fuzz_log "$target")
    reproducer=$(sed -n 's/.*Test unit written to //p' "$log" | tail -n 1)
    # With single inputs, the seeds, it's the one that was running.
    if [[ -z $reproducer ]]; then reproducer=$(sed -n 's/^Running: //p' "$log" | tail -n 1); fi
    {
        printf '%sFinding in %s%s\n' "$red" "$target" "$plain"
        grep -aE '^Judge: |^==[0-9]+==ERROR|runtime error:|^SUMMARY: |^Base64: ' "$log" |
            grep -av 'deadly signal' | cut -c -1000 || true
        printf 'Log:        %s\n' "$log"
        printf 'Reproducer: %s\n' "${reproducer:-none}"
        printf 'Again:      build/fuzz/fuzz/%s %s\n' "$target" "$reproducer"
    } >&2
}

# Waits for one of the fuzzers in the table PROCESSES, process numbers with their targets, and prints its row.
end_fuzzer() {  # PROCESSES ROW-COMMAND...
    local -n processes=$1
    local ended target status=0
    shift
    wait -n -p ended "${!processes[@]}" || status=$?
    target=${processes[$ended]}
    unset "processes[$ended]"
    if ((status != 0)); then
        report_finding "$target"
        return 1
    fi
    "$@" "$target"
}

# Those that are still at it, when something was found or somebody has had enough.
stop_fuzzers() {
    local -a left
    mapfile -t left < <(jobs -p)
    if ((${#left[@]} > 0)); then kill "${left[@]}" 2>/dev/null || true; fi
}

# Runs a function for each target, as many at once as there are processors. The first that fails ends them all.
run_fuzzers() {  # ROW-COMMAND COMMAND TARGET...
    local -a print_row command
    local -A running=()
    local target
    read -ra print_row <<<"$1"
    read -ra command <<<"$2"
    shift 2
    trap stop_fuzzers EXIT
    for target in "$@"; do
        if ((${#running[@]} >= $(nproc))); then end_fuzzer running "${print_row[@]}" || return; fi
        "${command[@]}" "$target" &
        running[$!]=$target
    done
    while ((${#running[@]} > 0)); do end_fuzzer running "${print_row[@]}" || return; done
}

# The subshells keep run_fuzzers' trap away from the script's own.
run_fuzz_seeds() {  # TARGET...
    local -a seeds
    seeds=(fuzz/corpus/*/*)
    (run_fuzzers print_nothing fuzz_seeds "$@") || die "a seed is judged wrong"
    note "${#seeds[@]} seeds are judged right."
}

fuzz() {  # SECONDS SEED TARGET...
    local seconds=$1 seed=$2 rows
    shift 2
    note "Fuzzing $# targets for $seconds s each, $(nproc) at a time ..."
    rows=$(mktemp)
    if ! (run_fuzzers "print_fuzz_row $seconds" "fuzz_for $seconds $seed" "$@") | tee "$rows"; then
        rm "$rows"
        die "fuzzing has found something"
    fi
    print_fuzz_total <"$rows"
    rm "$rows"
}
