#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: plants deliberate mistakes one at a time, and shows which test catches each
# program: tools/mutants.py
# time: long
source tools/devlib.sh

script=tools/mutants.py
for argument in "$@"; do
    [[ "$argument" != --search ]] || script=tools/mutant_search.py
done
use_python "$script" '--help|-h|--list' "$@"
require_packages build test mutants
exec nice -n 10 /usr/bin/python3 -B "$script" "$@"
