#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: format, lint, licence and sanitizers (warnings as errors under both compilers: `test`)
source tools/presets.sh

(($# == 0)) || wrong_usage "check: takes no arguments, not \"$*\""

stages_passed=0
stages_failed=0

# stage NAME COMMAND...: one line on the outcome, preceded by the log if it failed.
stage() {
    local name="$1" started=$SECONDS outcome=ok
    shift
    if run_logged "check-$name" "$@"; then
        stages_passed=$((stages_passed + 1))
    else
        stages_failed=$((stages_failed + 1))
        outcome=FAILED
    fi
    printf '%-14s %-6s %5d s\n' "$name" "$outcome" $((SECONDS - started))
}

find_sources() {
    local folder
    for folder in "$@"; do
        [[ ! -d "$folder" ]] || find "$folder" -name '*.h' -o -name '*.cpp'
    done
}

check_format() {
    find_sources libsrc tests examples bench fuzz hosts cmake |
        xargs clang-format --dry-run --Werror
}

check_clang_tidy() {
    cmake --preset clang-x86_64 &&
        find libsrc -name '*.cpp' -print0 |
        xargs -0 -n 1 -P "$(nproc)" clang-tidy --quiet -p build/clang-x86_64
}

check_cppcheck() {
    cppcheck --quiet --error-exitcode=1 --std=c++20 --enable=warning,performance,portability \
        --inline-suppr --suppressions-list=.cppcheck-suppressions --library=posix \
        -I libsrc/include libsrc
}

check_shell() {
    find dev .ci cmake tools packaging tests hosts -type f \( -name '*.sh' -o -name dev -o -name run \) -print0 |
        xargs -0 shellcheck --external-sources
}

check_sanitizer() {
    run_preset "$1" && say "$passed tests passed"
}

require_packages build test check
stage format check_format
stage clang-tidy check_clang_tidy
stage cppcheck check_cppcheck
stage shellcheck check_shell
stage licence reuse lint
for preset in asan-x86_64 asan-i386 tsan-x86_64; do
    stage "$preset" check_sanitizer "$preset"
done

say ""
say "Warnings as errors under both compilers are part of ./dev test."
say "$stages_passed passed, $stages_failed failed"
((stages_failed == 0))
