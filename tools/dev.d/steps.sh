#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: steps to every instruction of the operations, of the library without optimisation, too
source tools/presets.sh

(($# == 0)) || wrong_usage "steps: takes no arguments, not \"$*\""
require_packages build test

total_passed=0
total_failed=0
for preset in steps-x86_64 steps-i386; do
    say "$preset: building and testing"
    run_preset_watched "$preset" || say "$preset: FAILED"
    total_passed=$((total_passed + passed))
    total_failed=$((total_failed + failed))
    read -r visited wrong < <(count_steps "build/$preset/junit.xml")
    say "$preset: a signal delivered at $visited instructions, $wrong went wrong"
done
say "$total_passed passed, $total_failed failed"
((total_failed == 0))
