#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# check_exported_symbols.sh LIBRARY LIST: compares what a shared library exports with a list.
#
# Every symbol on the list must be exported. Every exported symbol must be on the list, or belong
# to a class on the list: private members, and what compilers add to a class, such as tables, type
# information and the members of templates, differ from one build to the next. What the standard
# library's own templates leave behind is weak, and shared with whoever else uses them.
#
# The status 77 says that there is nothing to compare: the list has libstdc++'s names in it.
set -euo pipefail
export LC_ALL=C

readonly made_for='(vtable|typeinfo|typeinfo name|guard variable) for'

fail() {
    printf 'check_exported_symbols.sh: %s\n' "$*" >&2
    exit 1
}

# entries KIND: the names on the list that are marked as a "class" or a "symbol".
entries() {
    sed -n "s/^$1 //p" "$list" | sed "s/\\bsize_t\\b/$size_type/g"
}

# Those of a class begin with its name, which is followed by its template arguments, by its member,
# or by nothing.
without_classes() {
    sed -E "s/^$made_for //" |
        awk -v classes="$(entries class)" '
            BEGIN { count = split(classes, names, "\n") }
            {
                for (i = 1; i <= count; ++i)
                    if (index($0, names[i]) == 1 &&
                        substr($0, length(names[i]) + 1) ~ /^(<|::|$)/)
                        next
                print
            }'
}

if (($# != 2)); then
    printf 'usage: check_exported_symbols.sh LIBRARY LIST\n' >&2
    exit 2
fi
library="$1" list="$2"
[[ -r "$library" ]] || fail "cannot read the library $library"
[[ -r "$list" ]] || fail "cannot read the list $list"

size_type='unsigned int'
[[ "$(readelf --file-header "$library")" != *ELF64* ]] || size_type='unsigned long'

# Each as "TYPE NAME", TYPE being one letter.
exported="$(nm --dynamic --defined-only --demangle "$library" |
    sed -E 's/^[0-9a-f]+ //; s/std::basic_ostream<char, std::char_traits<char> >/std::ostream/' |
    sort -u)"
[[ -n "$exported" ]] || fail "$library exports nothing"
if [[ "$exported" == *std::__1::* ]]; then
    printf 'the list is for libstdc++, and the library is made with libc++\n'
    exit 77
fi
names="$(cut -c 3- <<<"$exported" | sort -u)"

missing="$(comm -13 <(printf '%s\n' "$names") <(entries symbol | sort -u))"
unknown="$(grep -vE "^[VWu] ($made_for |[a-z ]+ )?std::" <<<"$exported" | cut -c 3- | sort -u |
    comm -23 - <(entries symbol | sort -u) | without_classes)"

[[ -z "$missing" ]] || printf 'not exported any more: %s\n' "${missing//$'\n'/$'\n                       '}"
[[ -z "$unknown" ]] || printf 'exported, but of no public class: %s\n' \
    "${unknown//$'\n'/$'\n                                  '}"
[[ -z "$missing$unknown" ]]
