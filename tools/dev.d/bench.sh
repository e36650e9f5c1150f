#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: measures what the library costs, beside what its works cost without it, in one run
source tools/devlib.sh

use_python tools/bench.py '--help|-h|--list' "$@"

require_packages build
say "Building"
run_logged build-bench build_preset bench || fail "the benchmarks could not be built"
exec /usr/bin/python3 -B tools/bench.py "$@"
