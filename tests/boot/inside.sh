#!/usr/bin/env bash
# inside.sh COMMAND: what check.sh does in its Debian.
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8

trial=$(dirname "$(readlink -f "$0")")
programs=/usr/bin
libraries=$(dirname "$(find /usr/lib -name 'libVFileSys.so*' | head -n 1)")
kill_at=$trial/kill_at.so
# shellcheck source=tests/boot/product.sh
. "$trial/product.sh"

# Whatever has no word of its own about when it starts is like the product. resume takes its time, so that what would
# not wait for it comes first.
install_packages() {
    apt-get install --yes --no-install-recommends "$trial"/*.deb
    [[ $(systemctl is-enabled vfilelist-resume) == enabled ]] || fail "the unit is not enabled"
    install -D "$programs/vfilelist" "$state/rescue/vfilelist"  # what the unit starts has to be there for this
    systemd-analyze verify --man=no /lib/systemd/system/vfilelist-resume.service || fail "systemd dislikes the unit"
    rm -r "$state"
    mkdir /etc/systemd/system/vfilelist-resume.service.d
    printf '%s\n' '[Service]' 'ExecStartPre=/bin/sleep 1' >/etc/systemd/system/vfilelist-resume.service.d/slow.conf
    printf '%s\n' '[Service]' Type=oneshot "ExecStart=$trial/inside.sh start_product" \
        '[Install]' WantedBy=multi-user.target >/etc/systemd/system/product.service
    printf '%s\n' '[Unit]' After=product.service '[Service]' 'ExecStart=systemctl --no-block poweroff' \
        '[Install]' WantedBy=multi-user.target >/etc/systemd/system/end.service
    systemctl enable product end
}

# The first line says what the product finds.
start_product() {
    {
        old_or_new "$(cat /srv/before)"
        if [[ -e $state/state ]]; then cat "$state/state"; fi
        [[ $(systemctl show -P ConditionResult vfilelist-resume) == yes ]] || echo "resume did not run"
        journalctl --unit=vfilelist-resume --boot --output=cat || true
    } >/srv/product 2>&1
}

# What is said in between is worth reading only when it fails.
prepare() { "$0" install_packages >"$trial/output" 2>&1 || { cat "$trial/output"; exit 1; }; }

cut_product_off() {  # CUT
    make_product
    listing >/srv/before
    cut_off "$1"
}

# As docs/fleet.md says.
require_resume() {
    mkdir /etc/systemd/system/product.service.d
    printf '%s\n' '[Unit]' Requires=vfilelist-resume.service After=vfilelist-resume.service \
        >/etc/systemd/system/product.service.d/resume.conf
}

"$@"
