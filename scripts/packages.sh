# Installs what scripts/packages.txt lists and this machine lacks. Sourced by ./dev.
# shellcheck shell=bash

# The packages of the groups, for example: packages_of build test
packages_of() {
    awk -v wanted=" $* " '
        /^#/ || NF == 0 { next }
        {
            count = split($2, groups, ",")
            for (i = 1; i <= count; ++i) {
                if (index(wanted, " " groups[i] " ")) { print $1; next }
            }
        }' scripts/packages.txt
}

# Those of the packages that are not installed.
missing_of() {
    local installed package
    installed=$(dpkg-query -W -f '${Package} ${db:Status-Status}\n' "$@" 2>/dev/null || true)
    for package in "$@"; do
        grep -qxF "$package installed" <<<"$installed" || printf '%s\n' "$package"
    done
}

# Prints how to run apt-get: a prefix that makes us root. Fails when there is none.
root_prefix() {
    if ((EUID == 0)); then
        echo env
    elif ! command -v sudo >/dev/null; then
        return 1
    elif sudo -n true 2>/dev/null || { [[ -t 0 ]] && sudo -v; }; then  # at a terminal sudo may ask for the password
        echo sudo env
    else
        return 1
    fi
}

# For who has to ask somebody else to install them: what is missing, what for, and the command.
die_of_missing() {  # PACKAGE...
    {
        printf 'Missing Debian packages:\n'
        awk -v wanted=" $* " '/^#/ { next } index(wanted, " " $1 " ") {
            name = $1
            sub(/^[^ ]+ +[^ ]+ +/, "")
            printf "  %-28s%s\n", name, $0
        }' scripts/packages.txt
        printf 'Install them as root, then run ./dev again:\n  apt-get install --no-install-recommends %s\n' "$*"
    } >&2
    die "packages are missing, and there is neither root nor sudo to install them"
}

# Runs the command of apt-get that installs, one line a package; everything else that it says is shown if it fails.
install_now() {  # COMMAND...
    local log status=0
    log=$(mktemp)
    "$@" </dev/null 2>&1 | tee "$log" |
        sed -un 's/^Setting up/  &/p' | status_line || status=$?
    if ((status != 0)); then grep -vE '^(Selecting|Preparing|Unpacking|Setting up|\(Reading)' "$log" >&2 || true; fi
    rm "$log"
    return "$status"
}

install_packages() {  # GROUP...
    local -a wanted missing prefix get install
    mapfile -t wanted < <(packages_of "$@")
    ((${#wanted[@]} > 0)) || return 0
    if ! command -v dpkg-query >/dev/null; then
        note "Not a Debian system: what is needed is listed in scripts/packages.txt."
        return 0
    fi
    mapfile -t missing < <(missing_of "${wanted[@]}")
    ((${#missing[@]} > 0)) || return 0

    read -ra prefix < <(root_prefix) || die_of_missing "${missing[@]}"
    heading "Installing ${missing[*]}"
    get=("${prefix[@]}" DEBIAN_FRONTEND=noninteractive apt-get -qq -o Dpkg::Use-Pty=0)
    install=("${get[@]}" install -y --no-install-recommends "${missing[@]}")
    # The package lists are fetched only when the ones on the disk can't serve, because they are missing or old.
    if ! "${install[@]}" --simulate >/dev/null 2>&1; then
        quietly "Fetching the package lists" "${get[@]}" update
    fi
    if ! install_now "${install[@]}"; then
        quietly "Fetching newer package lists" "${get[@]}" update
        install_now "${install[@]}" || die "could not install ${missing[*]}"
    fi
}
