#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: storms of signals against everything, each for SECONDS (10), with their progress
source tools/devlib.sh

seconds="${1-10}"
if (($# > 1)) || [[ ! "$seconds" =~ ^[1-9][0-9]{0,5}$ ]]; then
    wrong_usage "storm: seconds are a whole number from 1 to 999999, not \"$*\""
fi

require_packages build test
say "Building the storms"
run_logged build-storm build_preset gcc-x86_64 --target storm_test ||
    fail "the storms could not be built"
export SORVANE_STORM_SECONDS="$seconds"
exec build/gcc-x86_64/tests/storm_test
