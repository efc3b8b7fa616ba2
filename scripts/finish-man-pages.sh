#!/usr/bin/env bash
# Makes the manual pages that doxygen wrote fit for "man" and "apropos": pages of directories and of
# the handbook go, every page says what it is about, and every function is found by its name.
#
# usage: finish-man-pages.sh DIRECTORY
set -euo pipefail

symbols=$(realpath "$(dirname "$0")/../packaging/KivFramework.symbols")
cd "$1"

rm -f _*.3kiv ./*.md.3kiv md_*.3kiv

# A page's subject without a description is a namespace; what its header is about describes it.
for page in *.3kiv; do
    subject=$(grep -A 1 '^\.SH NAME' "$page" | tail -n 1)
    if [[ $subject != *'\-'* ]]; then
        module=${page%.3kiv}
        module=${module#KivFramework_}
        about=$(sed -n '/^\.SH NAME/{n;s/.* \\- //;s/ *$//;p}' "$module.h.3kiv")
        about=${about//'\&'/}
        sed -i "/^\.SH NAME/{n;s|.*|$subject \\\\- $about|}" "$page"
    fi
done

# AddLogEntry and KivLogger::AddLogEntry both lead to the page of KivFramework::KivLogger. A name that
# several modules have is found with its module only.
declare -A page_of
while IFS= read -r symbol; do
    name=${symbol%%(*}
    name=${name%%\[abi:*}
    function=${name##*::}
    scope=${name%::*}
    [[ $name == KivFramework::* ]] || continue
    [[ $function =~ ^[A-Za-z_][A-Za-z0-9_]*$ ]] || continue
    page=${scope//::/_}.3kiv
    [[ -e $page ]] || continue
    if [[ $scope == KivFramework::* ]]; then
        echo ".so man3/$page" >"${scope#KivFramework::}::$function.3kiv"
    fi
    if [[ -n ${page_of[$function]-} && ${page_of[$function]} != "$page" ]]; then
        page_of[$function]=several
    else
        page_of[$function]=$page
    fi
done <"$symbols"
for function in "${!page_of[@]}"; do
    if [[ ${page_of[$function]} != several && ! -e $function.3kiv ]]; then
        echo ".so man3/${page_of[$function]}" >"$function.3kiv"
    fi
done
