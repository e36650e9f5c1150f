#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: interrupts every operation at every instruction, in the unoptimised library, too
# usage: ./dev steps
# time: long
source tools/presets.sh

(($# == 0)) || wrong_usage "steps: takes no arguments, not \"$*\""
require_packages build test
say_time
test_presets steps-x86_64 steps-i386
