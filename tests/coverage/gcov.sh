#!/usr/bin/env bash
# gcov for gcovr: takes out what the compiler adds for exceptions that pass through.
#
# A branch that "never executed" lies behind a block that never ran. What leads to that block is counted itself,
# as a line or as a branch that was never taken; unless it is an exception, which cleans up and goes on. So
# nothing is lost. The same holds for a line {"like": this} within an initialiser list: when it never ran, it has
# nothing but the cleanup of the elements before it, and the list is counted on its first and last line.
set -euo pipefail

output=$(gcov "$@")
printf '%s\n' "$output"
sed -n "s/^Creating '\(.*\)'$/\1/p" <<<"$output" | while IFS= read -r file; do
    sed -i -e '/^branch .* never executed/d' -e 's/^ *#####:\( *[0-9]*: *{*{"\)/        -:\1/' "$file"
done
