#!/usr/bin/env bash
# Compares the symbols that the library exports with the checked-in list, in both directions, and the
# list with that of the Debian package, which also tells since which version each of them is there.
#
# With --update, both lists follow the library; what is new is there since the present version.
#
# usage: check_symbols.sh LIBRARY LIST [--update]
set -euo pipefail

library=$1
list=$2
packaging=$(dirname "$list")
debian_list=$packaging/debian/libkivframework1.symbols

# Types are left out of the comparison: T and W both mean "hosts can link this".
exported() {
    nm --dynamic --defined-only --demangle "$library" |
        sed -E 's/^[0-9a-f]+ [A-Za-z] //; s/@@KIVFRAMEWORK_[0-9]+$//' |
        grep -v '^KIVFRAMEWORK_[0-9]*$' | LC_ALL=C sort --unique
}

if [[ ${3-} == --update ]]; then
    version=$(dpkg-parsechangelog --file "$packaging/debian/changelog" --show-field Version)
    exported >"$list"
    known=$(<"$debian_list")
    {
        grep -v '^ (c++)' <<<"$known"
        while IFS= read -r symbol; do
            entry=" (c++)\"$symbol@KIVFRAMEWORK_1\" "
            grep -F -- "$entry" <<<"$known" || echo "$entry$version"
        done <"$list"
    } >"$debian_list"
    exit 0
fi

if ! difference=$(diff --unified=0 "$list" <(exported)); then
    echo "exported symbols differ from $list ('-': listed but not exported, '+': the reverse):"
    grep '^[-+][^-+]' <<<"$difference"
    exit 1
fi
if ! diff "$list" <(sed -nE 's/^ \(c\+\+\)"(.*)@KIVFRAMEWORK_1" .*/\1/p' "$debian_list"); then
    echo "$debian_list lacks symbols of $list ('<'), or has more ('>')"
    exit 1
fi
echo "$(wc -l <"$list") exported symbols, all listed"
