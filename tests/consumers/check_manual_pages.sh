#!/usr/bin/env bash
# Checks that the manual pages of agent and console tell of every option, command and setting that
# there is, and that the configuration of the Debian package can be used and has every setting too.
#
# usage: check_manual_pages.sh SOURCE_DIR PREFIX
set -euo pipefail

packaged=$1/packaging/debian/agent.conf
prefix=$2
man=$prefix/share/man
scratch=$(mktemp -d)
trap 'rm -r "$scratch"' EXIT
failures=0

# expect FILE PATTERN WHAT
expect() {
    if ! sed 's/\\-/-/g' "$1" | grep -qE -- "$2"; then
        echo "$(basename "$1") says nothing of $3"
        failures=$((failures + 1))
    fi
}

for page in man8/kiv-agent.8 man1/kiv-console.1; do
    program=$(basename "${page%.*}")
    for option in $("$prefix/bin/$program" --help | grep -oE -- '--[a-z-]+' | sort -u); do
        expect "$man/$page" "^\.B.*$option\b" "$option"
    done
done

while IFS= read -r command; do
    expect "$man/man1/kiv-console.1" "^(\.BI? \"?|.fB)$command\b" "$command"
done < <("$prefix/bin/kiv-console" --help | sed -nE 's/^  ([a-z0-9]+( (get|set))?)\b.*/\1/p')

"$prefix/bin/kiv-agent" --config "$scratch/default" --check
while IFS= read -r key; do
    expect "$man/man5/kiv-agent.conf.5" "^\.B $key$" "$key"
    expect "$packaged" "^(# )?$key = " "$key"
done < <(sed '/^\[jobs\]/q' "$scratch/default" | sed -nE 's/^(# )?([a-z_]+) = .*/\2/p')
cp "$packaged" "$scratch/packaged"
"$prefix/bin/kiv-agent" --config "$scratch/packaged" --check

((failures == 0))
