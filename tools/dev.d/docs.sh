#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: makes the reference, in build/docs, from the public headers and the pages
# usage: ./dev docs
# time: about half a minute
source tools/devlib.sh

readonly output=build/docs

# What the public headers include and is not said for users.
readonly internal='/(svexport|svhashtablefailure|svsubscriber)\.h$'

public_headers() {
    local header
    for header in libsrc/include/sorvane/*.h; do
        g++ -std=c++17 -MM "$header" | grep -oE 'libsrc/[^ ]+\.h'
    done | xargs realpath --relative-to=. | sort -u | grep -vE "$internal"
}

version() {
    awk '/^#define SORVANE_SIGNALS_VERSION_/ { printf "%s%s", dot, $3; dot = "." }' \
        libsrc/include/sorvane/svversion.h
}

# Later ones darken the page for who wants that, and the style is a light one.
configuration() {
    cat docs/reference/Doxyfile
    if [[ "$(doxygen -g -)" == *"HTML_COLORSTYLE "* ]]; then
        say "HTML_COLORSTYLE = LIGHT"
    fi
}

other_pages() {
    local page
    for page in CHANGELOG.md CONTRIBUTING.md SECURITY.md; do
        [[ ! -f "$page" ]] || say "$page"
    done
}

(($# == 0)) || wrong_usage "docs: takes no arguments, not \"$*\""
require_packages docs

SORVANE_VERSION="$(version)"
SORVANE_HEADERS="$(public_headers | tr '\n' ' ')"
SORVANE_PAGES="$(other_pages | tr '\n' ' ')"
export SORVANE_VERSION SORVANE_HEADERS SORVANE_PAGES

for page in inspection/*.[1-9]; do
    mandoc -T lint -W warning "$page" || fail "the manual page $page is not as it should be"
done

rm -rf "$output"
mkdir -p "$output"
run_logged docs doxygen - < <(configuration) || fail "the reference is not as it should be"
/usr/bin/python3 -B tools/reference_links.py "$output/html" || fail "some links lead nowhere"
say "The reference is in $output/html/index.html"
