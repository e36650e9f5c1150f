#!/bin/sh
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# check_plugin_exports.sh NM PLUG_IN: a plug-in exports its own functions, and, if it contains the
# library, the function that has a plain name.
set -eu
exported="$("$1" --dynamic --defined-only --demangle "$2" | sed 's/^[^ ]* . //' |
    grep -vE '^(plugIn(Begin|Calls|End)|actualSignalHandler)$' || true)"
[ -z "$exported" ] && exit 0
printf 'exported by %s:\n%s\n' "$2" "$exported"
exit 1
