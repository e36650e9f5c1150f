#!/usr/bin/env bash
# summary: plants deliberate mistakes one at a time, and shows which test catches each
source tools/devlib.sh

require_packages build test mutants
exec nice -n 10 python3 tools/mutants.py "$@"
