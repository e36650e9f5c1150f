#!/bin/sh
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# check_installed_headers.sh PREFIX/INCLUDE COMPILER [FLAG...]: what is installed is what the public
# headers include, and no header more.
set -eu
headers="$(realpath "$1/sorvane-signals")"
shift
included="$(for header in "$headers"/include/sorvane/*.h; do
    "$@" -std=c++17 -MM "$header" -MF -
done | sed 's/^[^ ]*://; s/\\ /@/g; s/\\$//' | tr -s ' ' '\n' | sed '/^$/d; s/@/ /g' |
    xargs -d '\n' realpath | sort -u)"
installed="$(find "$headers" -type f | sort)"
[ "$included" = "$installed" ] && exit 0
printf 'included:\n%s\ninstalled:\n%s\n' "$included" "$installed"
exit 1
