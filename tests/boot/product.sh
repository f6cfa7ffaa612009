# The product of the tests of vfilelist-resume.service. Sourced where nothing else is at stake: in a mount namespace or
# a root directory of its own. Its upgrade replaces two files of the application, and what vfilelist itself needs: the
# two programs in the directory `programs` and this project's libraries in `libraries`. `kill_at` is KillAt.cpp's.
# shellcheck shell=bash disable=SC2034,SC2154  # the ones are used, the others set by who sources it

state=/var/lib/vfilelist
package=/srv/package
application=/opt/app
own_programs=(vfilelist VCopyFileListIni)
own_libraries=(libVFileSys.so libVLogger.so libVIni.so libsafestr.so)

# Where an upgrade is cut off, and what resume makes of it.
cuts='
between-renames OLD
renamed         OLD
copied          OLD
undoing         OLD
cleaning        NEW
cleaned         NEW
'

fail() {
    printf 'FAILED: %s\n' "$*"
    exit 1
}

join() { local IFS=,; echo "$*"; }

# Those of the product are in the middle of the list.
own_files() { printf '%s\n' "${own_programs[@]/#/$programs/}" "${own_libraries[@]/#/$libraries/}"; }

# Whatever bears the name of a listed file or begins with it.
listed_files() {
    local file
    for file in $(own_files); do find "${file%/*}" -name "${file##*/}*"; done
    find "$application" -type f
}

# One that was put back differs in nothing.
listing() { listed_files | sort | xargs stat --format '%n %i %a %U:%G %s %y'; }

# The new release of a program or library is the old one and a word more, so that it still works.
make_product() {
    local file
    rm -rf "$package" "$application"
    mkdir -p "$package/Common" "$application"
    for file in one two; do
        echo "old $file" >"$application/$file"
        echo "new $file" >"$package/Common/$file"
    done
    for file in $(own_files); do { cat "$file" && echo new; } >"$package/Common/${file##*/}"; done
    echo "new three" >"$package/Common/three"
    printf '%s\n' '[Package_Intall_Type]' PackageIntallType=S \
        '[S]' "A=$application" "B=$programs" "C=$libraries" "D=$application" \
        '[A]' f=one '[B]' "f=$(join "${own_programs[@]}")" '[C]' "f=$(join "${own_libraries[@]}")" '[D]' f=two,three \
        >"$package/filelist.ini"
    sync -f "$package"
}

# vfilelist, killed before it renames or removes FILE for the COUNT-th time.
killed() {  # FILE COUNT ARGUMENT...
    local status=0
    {
        KILL_AT=$1 KILL_TIME=$2 LD_PRELOAD=$kill_at setsid --wait "$programs/vfilelist" "${@:3}" >/dev/null ||
            status=$?
    } 2>/dev/null
    [[ $status == 137 ]] || fail "vfilelist ${*:3} ended with $status instead of being killed at $1"
}

expect_state() {  # STATE
    [[ $(cut -d' ' -f3 "$state/state") == "$1" ]] || fail "the upgrade was cut off while $(cat "$state/state")"
}

cut_off() {  # CUT
    case $1 in
        undoing | clean*) "$programs/vfilelist" upgrade "$package/filelist.ini" >/dev/null ;;
    esac
    # Each state is written as state.new and renamed.
    case $1 in
        between-renames) killed "$application/two" 1 upgrade "$package/filelist.ini" && expect_state renaming ;;
        renamed) killed "$state/state.new" 2 upgrade "$package/filelist.ini" && expect_state renaming ;;
        copied) killed "$state/state.new" 3 upgrade "$package/filelist.ini" && expect_state copying ;;
        undoing) killed "$application/two.bak" 1 rollback && expect_state undoing ;;
        cleaning) killed "$application/two.bak" 1 commit && expect_state cleaning ;;
        cleaned) killed "$state/state" 1 commit && expect_state cleaning ;;
    esac
    if [[ $1 == *rename* && -v own_programs[0] && -e $programs/vfilelist ]]; then fail "vfilelist is still there"; fi
}

# Names what is left when neither.
old_or_new() {  # LISTING-BEFORE
    local file differing=''
    if [[ $(listing) == "$1" ]]; then
        echo OLD
        return
    fi
    for file in $(own_files) "$application"/{one,two,three}; do
        cmp -s "$file" "$package/Common/${file##*/}" || differing+=" $file"
    done
    if [[ -z $differing ]] && ! listed_files | grep '\.bak$'; then echo NEW; else echo "MIXED:$differing"; fi
}
