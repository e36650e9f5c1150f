#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: builds and runs the tests with libc++, and for aarch64 under qemu-user
# usage: ./dev portability
# time: long
source tools/presets.sh

(($# == 0)) || wrong_usage "portability: takes no arguments, not \"$*\""
require_packages build test portability
say_time
say "What is skipped says why in build/PRESET/junit.xml."
test_presets libcxx-x86_64 clang-aarch64
