#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: builds and runs the main job on real signals, and shows it
# usage: ./dev demo [--dump]
source tools/devlib.sh

[[ -z "$*" || "$*" == --dump ]] || wrong_usage "demo: takes --dump at most, not \"$*\""
require_packages build
say "Building the examples"
run_logged build-demo build_preset gcc-x86_64 --target examples || fail "the demo could not be built"
exec build/gcc-x86_64/examples/demo "$@"
