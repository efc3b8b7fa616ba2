#!/usr/bin/env bash
# Compares the symbols that the library exports with the checked-in list, in both directions.
#
# usage: check_symbols.sh LIBRARY LIST [--update]
set -euo pipefail

library=$1
list=$2

# Types are left out of the comparison: T and W both mean "hosts can link this".
exported() {
    nm --dynamic --defined-only --demangle "$library" |
        sed -E 's/^[0-9a-f]+ [A-Za-z] //; s/@@KIVFRAMEWORK_[0-9]+$//' |
        grep -v '^KIVFRAMEWORK_[0-9]*$' | LC_ALL=C sort --unique
}

if [[ ${3-} == --update ]]; then
    exported >"$list"
    exit 0
fi

if ! difference=$(diff --unified=0 "$list" <(exported)); then
    echo "exported symbols differ from $list ('-': listed but not exported, '+': the reverse):"
    grep '^[-+][^-+]' <<<"$difference"
    exit 1
fi
echo "$(wc -l <"$list") exported symbols, all listed"
