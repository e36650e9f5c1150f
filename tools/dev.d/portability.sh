#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: builds and runs the tests with libc++, and for aarch64 under qemu-user
source tools/presets.sh

(($# == 0)) || wrong_usage "portability: takes no arguments, not \"$*\""
require_packages build test portability

declare -A described=(
    [libcxx-x86_64]="clang++ with libc++"
    [clang-aarch64]="aarch64, run by qemu-user"
)
rows=()
total_passed=0
total_failed=0
for preset in libcxx-x86_64 clang-aarch64; do
    say "$preset: building and testing"
    started=$SECONDS
    run_preset_watched "$preset" || say "$preset: FAILED"
    rows+=("$(printf '%-28s %7d %7d %7d %7d s' \
        "${described[$preset]}" "$passed" "$failed" "$skipped" $((SECONDS - started)))")
    total_passed=$((total_passed + passed))
    total_failed=$((total_failed + failed))
done

printf '\n%-28s %7s %7s %7s %9s\n' platform passed failed skipped time
printf '%s\n' "${rows[@]}"
say ""
say "What is skipped says why in build/PRESET/junit.xml."
printf '\n%d passed, %d failed\n' "$total_passed" "$total_failed"
((total_failed == 0))
