#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: builds and runs every test, 64-bit and 32-bit, under both compilers
source tools/presets.sh

readonly default_presets=(gcc-x86_64 gcc-i386 clang-x86_64 clang-i386)
readonly sanitizer_presets=(asan-x86_64 asan-i386 tsan-x86_64)

require_known_preset() {
    local known
    for known in "${default_presets[@]}" "${sanitizer_presets[@]}"; do
        [[ "$1" == "$known" ]] && return 0
    done
    wrong_usage "unknown preset \"$1\"; known: ${default_presets[*]} ${sanitizer_presets[*]}"
}

presets=("$@")
((${#presets[@]} > 0)) || presets=("${default_presets[@]}")
for preset in "${presets[@]}"; do
    require_known_preset "$preset"
done
require_packages build test

rows=()
visited=0
wrong=0
total_passed=0
total_failed=0
for preset in "${presets[@]}"; do
    say "$preset: building and testing"
    started=$SECONDS
    run_preset "$preset" || say "$preset: FAILED"
    rows+=("$(printf '%-14s %7d %7d %7d %7d s' \
        "$preset" "$passed" "$failed" "$skipped" $((SECONDS - started)))")
    read -r preset_visited preset_wrong < <(count_steps "build/$preset/junit.xml")
    visited=$((visited + preset_visited))
    wrong=$((wrong + preset_wrong))
    total_passed=$((total_passed + passed))
    total_failed=$((total_failed + failed))
done

printf '\n%-14s %7s %7s %7s %9s\n' preset passed failed skipped time
printf '%s\n' "${rows[@]}"
printf '\na signal delivered at %d instructions of the operations, %d went wrong\n' "$visited" "$wrong"
printf '%d passed, %d failed\n' "$total_passed" "$total_failed"
((total_failed == 0))
