#!/usr/bin/env bash
# summary: measures what the library costs, beside what its works cost without it, in one run
# program: tools/bench.py
# time: about a minute on 2 cores
source tools/devlib.sh

use_python tools/bench.py '--help|-h|--list' "$@"

require_packages build
say "Building"
run_logged build-bench build_preset bench || fail "the benchmarks could not be built"
exec /usr/bin/python3 -B tools/bench.py "$@"
