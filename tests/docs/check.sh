#!/usr/bin/env bash
# check.sh SITE: the site is valid HTML, every link in it leads somewhere, it loads nothing from elsewhere, its
# reference warns of every hazard, its index has every name, and no page is wider than a phone.
set -euo pipefail

here=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
site=$(readlink -f "$1")
failures=0
cd "$site"
mapfile -t pages < <(find . -name '*.html' -printf '%P\n' | sort)

# This tidy knows no aria-current.
for page in "${pages[@]}"; do
    tidy -quiet -errors --warn-proprietary-attributes no "$page" 2> >(sed "s,^,$page: ," >&2) || failures=1
done

/usr/bin/python3 "$here/links.py" . || failures=1
/usr/bin/python3 "$here/hazards.py" . || failures=1
/usr/bin/python3 "$here/index.py" . || failures=1

# All pages are loaded side by side, 390 pixels wide each; what Chromium prints is the page with its list of those
# that are too wide.
frames=$(mktemp --suffix=.html)
profile=$(mktemp -d)
trap 'rm -rf "$frames" "$profile"' EXIT
{
    cat "$here/widths.html"
    printf '<iframe width="390" height="844" src="%s"></iframe>\n' "${pages[@]/#/file://$site/}"
} >"$frames"
measured=$(chromium --headless --no-sandbox --disable-gpu --disable-dev-shm-usage --user-data-dir="$profile" \
    --allow-file-access-from-files --dump-dom "file://$frames" 2>/dev/null | sed -n 's,^measured: ,,p')
printf '%s\n' "${measured:-Chromium has measured nothing.}"
[[ $measured == "${#pages[@]} pages, 0 too wide" ]] || failures=1

((failures == 0)) || exit 1
