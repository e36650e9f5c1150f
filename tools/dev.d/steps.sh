#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: steps to every instruction of the operations, of the library without optimisation, too
# usage: ./dev steps
# time: long
source tools/presets.sh

(($# == 0)) || wrong_usage "steps: takes no arguments, not \"$*\""
require_packages build test
say_time
test_presets steps-x86_64 steps-i386
