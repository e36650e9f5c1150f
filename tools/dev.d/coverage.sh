#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: runs the tests and reports the lines and branches of libsrc/ that they leave out
# usage: ./dev coverage
# time: long
source tools/presets.sh

readonly counting_preset=coverage-x86_64
readonly trace=build/$counting_preset/coverage.json
readonly html_dir=build/$counting_preset/coverage-html

# What is excluded is excluded in the code, each with its reason behind the mark.
check_exclusions() {
    if grep -rnE '(GCOVR?|LCOV)_EXCL' libsrc |
        grep -vE 'GCOVR_EXCL_(LINE|BR_LINE|START): [^ ]|GCOVR_EXCL_STOP' >&2; then
        say "These exclusions have no reason, or a form that is not known here." >&2
        return 1
    fi
}

# A process may end while its other threads count, and what follows from its counters can then be
# less than nothing; gcovr does not take that, but the branches come from the tool behind it.
count_lines() {
    gcovr --gcov-ignore-parse-errors --root libsrc --json "$trace" build/$counting_preset &&
        /usr/bin/python3 -B tools/coverage_branches.py build/$counting_preset libsrc "$trace"
}

make_html() {
    rm -rf "$html_dir" && mkdir -p "$html_dir" &&
        gcovr --root libsrc --add-tracefile "$trace" --html-details "$html_dir/index.html"
}

# report TITLE OPTION...: one table; the options are gcovr's.
report() {
    say ""
    say "$1"
    gcovr --root libsrc --add-tracefile "$trace" "${@:2}"
}

# stage COMMAND...: counts whether it holds.
stage() {
    if "$@"; then
        stages_passed=$((stages_passed + 1))
    else
        stages_failed=$((stages_failed + 1))
    fi
}

(($# == 0)) || wrong_usage "coverage: takes no arguments, not \"$*\""
require_packages build coverage
say_time
stages_passed=0
stages_failed=0

say "$counting_preset: building and testing"
# What an earlier run has counted, and the notes on sources that have changed since, do not fit.
rm -rf "build/$counting_preset"
stage run_preset $counting_preset
((failed == 0)) || show_failure $counting_preset
say "$passed tests passed, $failed failed"
((passed > 0)) || fail "nothing ran that could be reported"
run_logged coverage count_lines || fail "what ran could not be told"
run_logged coverage-html make_html || fail "the HTML report could not be written"
stage check_exclusions
# Not counted is what a process did that was then ended by a signal.
stage report "Lines" --fail-under-line 100
stage report "Branches" --branches --fail-under-branch 100

say ""
say "Line by line: $html_dir/index.html"
say "$stages_passed passed, $stages_failed failed"
((stages_failed == 0))
