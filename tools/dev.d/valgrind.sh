#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: runs the tests under valgrind's memcheck, and fails on an error or a leak
source tools/presets.sh

readonly checked_preset=gcc-x86_64

# What valgrind has nothing to say about: compilations and packages, which are no tests
# of ours to run; the programs for users to read, which are run as they are; stepping, for
# which it has no trap flag; and storms and other disturbances, of which little is left
# where one thread runs at a time.
readonly left_out='^(headers|package|abi|unoptimised|disturbed|example|readme)\.|^Interrupted|^Storm'

(($# == 0)) || wrong_usage "valgrind: takes no arguments, not \"$*\""
require_packages build test valgrind

export SORVANE_TEST_WRAPPER="$PWD/tools/valgrind/run_under_memcheck.sh"
ctest_options=(--exclude-regex "$left_out")
say "$checked_preset: building, and testing under memcheck"
started=$SECONDS
run_preset_watched $checked_preset || say "$checked_preset: FAILED"

printf '\n%-14s %7s %7s %7s %9s\n' preset passed failed skipped time
printf '%-14s %7d %7d %7d %7d s\n' $checked_preset "$passed" "$failed" "$skipped" $((SECONDS - started))
say ""
say "Left out: $left_out"
say "What is skipped says why in build/$checked_preset/junit.xml."
printf '\n%d passed, %d failed\n' "$passed" "$failed"
((failed == 0))
