#!/usr/bin/env bash
# check.sh SOURCE PLACE: makes a clean Debian of this machine's release in a directory, installs the packages of PLACE
# there, and boots it with systemd after upgrades that were cut off: the files are right before the product starts.
set -euo pipefail

source=$(readlink -f "$1")
place=$(readlink -f "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
container=(systemd-nspawn --quiet --directory="$root" --register=no --keep-unit --private-network --console=pipe)
# shellcheck source=tests/boot/product.sh
. "$source/tests/boot/product.sh"

make_root() {
    mkdir "$work/trial"
    cp "$source"/tests/boot/{product.sh,inside.sh} "$work/trial"
    cp "$place"/{vfilesys-tools,libvfilesys,vfilesys-standins}_*.deb "$work/trial"
    c++ -shared -fPIC -o "$work/trial/kill_at.so" "$source/tests/boot/KillAt.cpp"
    # shellcheck disable=SC2016  # mmdebstrap's shell sets $1
    "$source/tests/package/clean_debian.sh" "$root" --include=systemd-sysv --customize-hook="copy-in $work/trial /" \
        --customize-hook='chroot "$1" /trial/inside.sh prepare'
}

# Until the machine has switched itself off. The product leaves its word in a file.
boot() {
    rm -f "$root/srv/product"
    timeout --kill-after=10 300 "${container[@]}" --boot </dev/null >"$work/boot" 2>&1 ||
        fail "it does not boot: $(cat "$work/boot")"
}

inside() { "${container[@]}" /trial/inside.sh "$@" </dev/null 2>"$work/output" || fail "$*: $(cat "$work/output")"; }

expect_product() {  # CUT EXPECTED
    [[ $(head -n 1 "$root/srv/product") == "$2" ]] || fail "cut off at \"$1\": $(cat "$root/srv/product")"
    printf -- '- cut off at "%s": the product starts with its files %s\n' "$1" "$2"
}

make_root
if ! (boot) >"$work/output" 2>&1 || [[ ! -s $root/srv/product ]]; then
    echo "skipped: a Debian without any upgrade does not boot in a container here: $(cat "$work/output")"
    exit 0
fi
grep -q 'resume did not run' "$root/srv/product" || fail "without an open upgrade: $(cat "$root/srv/product")"
echo "- without an open upgrade the unit is passed over"
while read -r cut expected; do
    inside cut_product_off "$cut"
    boot
    expect_product "$cut" "$expected"
done < <(grep . <<<"$cuts")

inside require_resume
inside cut_product_off renamed
mv "$root$state/journal" "$work"
boot
[[ ! -e $root/srv/product ]] || fail "with a lost journal: $(cat "$root/srv/product")"
echo "- with a lost journal: a product that requires the unit does not start"
mv "$work/journal" "$root$state"
boot
expect_product renamed OLD
