# Configuring, building and testing the presets of CMakePresets.json. Sourced by ./dev.
# shellcheck shell=bash

# The rows of a table of ./dev or scripts/checks.sh: name, package groups, description.
table_rows() { grep -v '^$' <<<"$1"; }

description_of() {  # TABLE NAME
    table_rows "$1" | awk -v name="$2" '$1 == name { sub(/^[^ ]+ +[^ ]+ +/, ""); print }'
}

# groups_of TABLE NAME: the package groups of a row, as separate words; fails when there is no such row.
groups_of() {
    table_rows "$1" | awk -v name="$2" '
        $1 == name { gsub(",", " ", $2); if ($2 != "-") print $2; found = 1 }
        END { exit !found }'
}

# Once a build directory treats warnings as errors it keeps doing so: switching back would rebuild everything.
strict=()
if [[ ${CI:-} == true ]]; then strict=(-DCMAKE_COMPILE_WARNING_AS_ERROR=ON); fi

# What runs the built programs, if they need help.
launcher=()

configure() {  # PRESET
    quietly "Configuring build/$1" cmake --preset "$1" "${strict[@]}"
}

build() {  # PRESET [TARGET...]
    local preset=$1
    shift
    note "Building build/$preset ..."
    NINJA_STATUS='[%f/%t] ' "${launcher[@]}" cmake --build --preset "$preset" --parallel "$(nproc)" ${1:+--target "$@"}
}

# Runs every test of the preset, or those of some test programs; ends with what was skipped and why.
run_tests() {  # PRESET [PROGRAM...]
    local preset=$1 status=0
    shift
    local -a options=(--output-on-failure --no-tests=error)
    if is_terminal && [[ ${CI:-} != true ]]; then options+=(--progress); fi
    if (($# > 0)); then options+=(--label-regex "^($(IFS='|' && echo "$*"))\$"); fi
    "${launcher[@]}" ctest --preset "$preset" -j "$(nproc)" "${options[@]}" || status=$?
    list_skipped "build/$preset/Testing/Temporary/LastTest.log"
    return "$status"
}

# Names the tests that did not run. GoogleTest gives the reason in the line behind "FILE:LINE: Skipped".
list_skipped() {  # LOG
    awk -v bold="$bold" -v plain="$plain" '
        /^[0-9]+\/[0-9]+ Test: / { name = $3; reason = "no reason given"; isNext = isOver = 0 }
        isNext { reason = $0; isNext = 0 }
        /: Skipped$/ { isNext = 1 }
        /^<end of output>$/ { isOver = 1 }
        /^Command: ""$/ { reason = "disabled in the source"; isOver = 1 }
        isOver && (/^Skip / || /^Command: ""$/) {
            names[++count] = name
            reasons[count] = reason
            if (length(name) > width) width = length(name)
        }
        END {
            if (count == 0) { print "\nSkipped tests: none"; exit }
            printf "\n%sSkipped tests: %d%s\n", bold, count, plain
            for (i = 1; i <= count; ++i) printf "  %-" width "s  %s\n", names[i], reasons[i]
        }' "$1"
}

# The C and C++ files of the project: what git knows or would add, or everything but the build trees.
source_files() {
    local -a patterns=('*.c' '*.h' '*.cpp')
    git ls-files --cached --others --exclude-standard -- "${patterns[@]}" 2>/dev/null | sort -u | while read -r file; do
        if [[ -e $file ]]; then printf '%s\n' "$file"; fi
    done | grep . ||
        find . -path ./build -prune -o -type f \( -name '*.c' -o -name '*.h' -o -name '*.cpp' \) -printf '%P\n' | sort
}
