#!/usr/bin/env bash
# check.sh SOURCE VFILELIST: runs the play of examples/ansible of the source tree SOURCE with this program, on three
# hosts that are directories below a temporary directory.
set -euo pipefail

if ! command -v ansible-playbook >/dev/null; then
    echo "SKIPPED: ansible-playbook is not installed"
    exit 77
fi

source=$(readlink -f "$1")
vfilelist=$2
work=$(readlink -f "$(mktemp -d "${TMPDIR:-/tmp}/vfilesys-fleet-XXXXXX")")
trap 'rm -rf "$work"' EXIT
umask 022

# ------------------------------------------------------------------------------------------ surroundings

# Nothing of the caller's Ansible, and nothing outside of the directory.
for variable in "${!ANSIBLE_@}"; do unset "$variable"; done
export HOME=$work/home TMPDIR=$work/tmp LC_ALL=C.UTF-8
export ANSIBLE_HOME=$HOME/.ansible ANSIBLE_LOCAL_TEMP=$work/tmp ANSIBLE_REMOTE_TEMP=$work/tmp
export ANSIBLE_CONFIG=$source/examples/ansible/ansible.cfg ANSIBLE_INVENTORY=$work/inventory.yml
export ANSIBLE_LIBRARY=$source/tests/fleet/library ANSIBLE_NOCOLOR=1
export VLOGGER_DIRECTORY=$work/log
unset VLOGGER_STDERR
export FLEET=$work PATH=$work/bin:$PATH
mkdir "$HOME" "$TMPDIR" "$work/bin" "$work/programs"

ln -s "$vfilelist" "$work/programs"
for name in vfilelist drain undrain health recorded; do
    ln -s "$source/tests/fleet/recorded" "$work/bin/$name"
done

c++ -shared -fPIC -o "$work/kill_at.so" "$source/tests/boot/KillAt.cpp"

cat >"$ANSIBLE_INVENTORY" <<YAML
app:
  hosts: {web1: , web2: , web3: }
  vars:
    ansible_connection: local
    ansible_python_interpreter: /usr/bin/python3
    ansible_become: false
    host: "$work/{{ inventory_hostname }}"
    ansible_remote_tmp: "{{ host }}/tmp"
    package_archive: "{{ host }}/package.tar"
    package_directory: "{{ host }}/package"
    services: ["{{ inventory_hostname }}-worker", "{{ inventory_hostname }}-server"]
    health_command: [health, "{{ inventory_hostname }}"]
    drain_command: [drain, "{{ inventory_hostname }}"]
    undrain_command: [undrain, "{{ inventory_hostname }}"]
    drain_from: localhost
    vfilelist_state: "{{ host }}/state"
    upgrade_log: "$work/log/TarnFramework_upgrade.log"
YAML

# ------------------------------------------------------------------------------------------ speaking

step() { printf -- '- %s\n' "$*"; }

fail() {
    printf 'FAILED: %s\n' "$*"
    if [[ -e $work/output.txt ]]; then cat "$work/output.txt"; fi
    exit 1
}

# ------------------------------------------------------------------------------------------ the hosts

write() {  # FILE MODE CONTENT
    mkdir -p "${1%/*}"
    printf '%s' "$3" >"$1"
    chmod "$2" "$1"
}

# The package changes tool1, tool2 and notes, whose old text is a beginning of the new one, brings tool3, and has
# one.so as it is.
make_host() {  # HOST
    local host=$work/$1
    rm -rf "$host"
    mkdir -p "$host/tmp"
    write "$host/app/bin/tool1" 755 "old tool1"
    write "$host/app/bin/tool2" 4750 "old tool2"
    write "$host/app/bin/app.conf" 600 "not on the list"
    write "$host/app/lib/notes" 640 "notes"
    write "$host/app/lib/one.so" 644 "one.so"

    write "$host/new/Common/bin/tool1" 644 "new tool1"
    write "$host/new/Common/bin/tool2" 644 "new tool2"
    write "$host/new/Common/bin/tool3" 755 "new tool3"
    write "$host/new/Common/lib/notes" 644 "notes, and more"
    write "$host/new/Common/lib/one.so" 644 "one.so"
    cat >"$host/new/filelist.ini" <<INI
[Package_Intall_Type]
PackageIntallType=Server
[Server]
BinFiles=$host/app/bin
LibFiles=$host/app/lib
[BinFiles]
f1=bin/tool1,bin/tool2,bin/tool3
[LibFiles]
f1=lib/notes,lib/one.so
INI
    pack "$1"
    listing "$1" >"$host/before"
    status "$1" >"$host/status"
}

pack() { tar -C "$work/$1/new" -cf "$work/$1/package.tar" filelist.ini Common; }  # HOST

# The files of the release: inode, mode, owner, time of change, size. One that was put back differs in none.
listing() { find "$work/$1/app" -type f -printf '%P %i %m %U:%G %T@ %s\n' | sort; }  # HOST

# When something happened to a file or directory of the release, be it a rename.
status() { find "$work/$1/app" -printf '%P %C@\n' | sort; }  # HOST

# The files of the release: path, mode and content.
contents() {  # HOST
    local path
    (cd "$work/$1/app" && find . -type f -printf '%P\n' | sort) | while IFS= read -r path; do
        printf '%s %s %s\n' "$path" "$(stat -c %a "$work/$1/app/$path")" "$(cat "$work/$1/app/$path")"
    done
}

new_release='bin/app.conf 600 not on the list
bin/tool1 755 new tool1
bin/tool2 4750 new tool2
bin/tool3 755 new tool3
lib/notes 640 notes, and more
lib/one.so 644 one.so'

new_fleet() {
    local host
    for host in web1 web2 web3; do make_host "$host"; done
    no_trouble
}

# The COMMANDS are run before each call that begins with CALL; they may end it with a status of their own.
trouble() {  # CALL COMMANDS
    # shellcheck disable=SC2016  # the variable of `recorded`
    printf 'case $call in\n%q*) %s ;;\nesac\n' "$1" "$2" >"$work/trouble"
}

no_trouble() { : >"$work/trouble"; }

# ------------------------------------------------------------------------------------------ running

run_play() {  # STATUS OPTION...
    local status=0
    : >"$work/journal"
    # No terminal: a question would hang.
    ansible-playbook "${@:2}" "$source/examples/ansible/upgrade.yml" </dev/null >"$work/output.txt" 2>&1 || status=$?
    [[ $status == "$1" ]] || fail "the play ended with $status instead of $1"
}

# What was done on HOST, but for looking at it.
work_on() {  # HOST
    grep -vE "$looks" "$work/journal" | grep -F "$1" |
        sed "s|$1/package/filelist.ini|LIST|; s| --state $1/state||; s|$1-||" || true
}

# Kills upgrades of HOST, and takes the host away, when the file is to be renamed.
lose_host_at() {  # HOST FILE
    local lost="rm -r ${work@Q}/$1/tmp; : >${work@Q}/$1/tmp"
    trouble "vfilelist upgrade $1/" "$lost
        export KILL_AT=${work@Q}/$1/app/$2 KILL_TIME=1 LD_PRELOAD=${work@Q}/kill_at.so
        exec setsid --wait \"\$FLEET/programs/vfilelist\" \"\$@\""
}

find_host_again() {  # HOST
    rm "$work/$1/tmp"
    no_trouble
}

# ------------------------------------------------------------------------------------------ looking

expect_same() {  # WHAT EXPECTED IS
    [[ $2 == "$3" ]] || fail "$1"$'\n'"$(diff <(printf '%s\n' "$2") <(printf '%s\n' "$3"))"
}

expect_upgraded() {  # HOST...
    local host
    for host; do expect_same "$host has not exactly the new release" "$new_release" "$(contents "$host")"; done
}

expect_taken_back() {  # HOST...
    local host
    for host; do
        expect_same "$host has not exactly the old release" "$(cat "$work/$host/before")" "$(listing "$host")"
        expect_same "the content of the old tool1 of $host" "old tool1" "$(cat "$work/$host/app/bin/tool1")"
    done
}

expect_untouched() {  # HOST...
    local host
    for host; do expect_same "$host was touched" "$(cat "$work/$host/status")" "$(status "$host")"; done
}

# Nobody stopped a service, changed a file or asked about the health.
looks='^vfilelist (resume|status|check|verify) '
expect_only_looks() {
    local others
    others=$(grep -vE "$looks" "$work/journal") || return 0
    fail "more was done than to look: $others"
}

expect_told() { grep -qF -- "$1" "$work/output.txt" || fail "the play did not say: $1"; }  # TEXT

upgrade_calls='drain HOST
service worker stopped
service server stopped
vfilelist upgrade LIST
service server started
service worker started'
kept_calls='health HOST
vfilelist commit
undrain HOST'
way_back_calls='service worker stopped
service server stopped
vfilelist rollback
service server started
service worker started
undrain HOST'

expect_work() {  # HOST CALLS...
    local calls
    calls=$(printf '%s\n' "${@:2}")
    expect_same "the steps on $1" "${calls//HOST/$1}" "$(work_on "$1")"
}

# ------------------------------------------------------------------------------------------ the runs

step "check mode changes no host"
new_fleet
run_play 0 --check
expect_only_looks
expect_untouched web1 web2 web3

step "every host is upgraded, one after the other"
run_play 0
expect_upgraded web1 web2 web3
for host in web1 web2 web3; do expect_work "$host" "$upgrade_calls" "$kept_calls"; done

step "a host that is refused keeps all others from being touched"
new_fleet
rm "$work/web2/new/Common/lib/notes"
pack web2
run_play 2
expect_only_looks
expect_told "E-SOURCE-MISSING"
expect_untouched web1 web2 web3

step "so does a package with a list that installs nothing, and a host with old backups"
new_fleet
sed -i 's/^\[LibFiles\]/[Libfiles]/' "$work/web2/new/filelist.ini"
pack web2
write "$work/web3/app/bin/tool1.bak" 644 "of long ago"
run_play 2
expect_only_looks
expect_told "W-LIST-EMPTY"
expect_told "W-OLD-BACKUP"

step "a host that can't be reached does the same"
new_fleet
rm -r "$work/web3/tmp"
: >"$work/web3/tmp"
run_play 2
expect_told "unreachable=1"
expect_only_looks
expect_untouched web1 web2 web3

step "a new release that does not work is taken back, and no further host is begun"
new_fleet
trouble "health web2" "echo other >${work@Q}/web2/app/bin/tool1; exit 1"
run_play 2
expect_upgraded web1
expect_same "the file that the service rewrote" "other" "$(cat "$work/web2/app/bin/tool1.changed")"
rm "$work/web2/app/bin/tool1.changed"
expect_taken_back web2
expect_untouched web3
expect_work web2 "$upgrade_calls" "health HOST" "$way_back_calls"
expect_told "Ask the new release whether it works: failed."
expect_told "The old files are back, the services started."

step "the next run goes on with the hosts that are left"
no_trouble
run_play 0
expect_upgraded web1 web2 web3
[[ -z $(work_on web1) ]] || fail "web1 was upgraded twice"

step "the others of its batch are upgraded to the end, and with max_fail the rest too"
new_fleet
trouble "health web1" "exit 1"
run_play 2 -e hosts_at_a_time=2
expect_taken_back web1
expect_upgraded web2
expect_untouched web3
run_play 2 -e hosts_at_a_time=2 -e max_fail=34
expect_taken_back web1
expect_upgraded web2 web3

step "a host that is refused when its turn comes keeps its batch from being begun"
new_fleet
trouble "health web1" "rm ${work@Q}/web3/package/Common/lib/notes"
run_play 2 -e '{"hosts_at_a_time": [1, 2]}'
expect_upgraded web1
expect_untouched web2 web3

# The limit is beyond what vfilelist keeps of itself, and the file beyond the limit.
step "an upgrade that fails half-way shows what the log says"
new_fleet
trouble "vfilelist upgrade web1/" \
    "truncate -s 64M ${work@Q}/web1/package/Common/lib/notes; trap '' XFSZ; ulimit -f 32768"
run_play 2
expect_taken_back web1
expect_untouched web2 web3
expect_work web1 "${upgrade_calls/LIST*/LIST}" "${way_back_calls/vfilelist rollback$'\n'/}"
expect_told "Failed:copy $work/web1/state/package/Common/lib/notes"

step "a service can't be stopped"
new_fleet
trouble "service web1-server stopped" "exit 1"
run_play 2
expect_untouched web1 web2 web3
if grep -qE 'vfilelist (upgrade|rollback|commit)' "$work/journal"; then fail "files were touched"; fi
expect_told "The old files are back, the services started."

step "a host whose old files can't all come back is left to people, and its services stopped"
new_fleet
trouble "health web1" "rm ${work@Q}/web1/app/bin/tool1.bak; exit 1"
run_play 2
expect_told 'LOOK AT THIS HOST'
expect_same "the last call" "vfilelist rollback --state web1/state" "$(tail -n 1 "$work/journal")"
expect_untouched web2 web3

step "a failure in commit takes nothing back"
new_fleet
backup=$work/web1/app/bin/tool2.bak
trouble "vfilelist commit --state web1/" "rm ${backup@Q}; mkdir -p ${backup@Q}/full"
run_play 2 -e hosts_at_a_time=2
rm -r "$backup"
expect_told "The new files are in place and work, but"
expect_upgraded web2
expect_untouched web3

step "a host that is lost half-way ends the run, and the next one heals it"
new_fleet
lose_host_at web1 lib/notes
run_play 4 -e hosts_at_a_time=2
[[ ! -e $work/web1/app/bin/tool1 ]] || fail "the upgrade of web1 was not cut off"
expect_upgraded web2
expect_untouched web3
find_host_again web1
run_play 0
expect_upgraded web1 web2 web3

step "one that is lost before its upgrade is decided on is upgraded again"
new_fleet
trouble "health web1" "rm -r ${work@Q}/web1/tmp; : >${work@Q}/web1/tmp"
run_play 4
find_host_again web1
run_play 0
expect_work web1 "${upgrade_calls/vfilelist/vfilelist rollback LIST$'\n'vfilelist}" "$kept_calls"
expect_upgraded web1 web2 web3
