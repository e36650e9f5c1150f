#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: plants deliberate mistakes one at a time, and shows which test catches each
source tools/devlib.sh

require_packages build test mutants
script=tools/mutants.py
for argument in "$@"; do
    [[ "$argument" != --search ]] || script=tools/mutant_search.py
done
# Nothing that Python compiles is left beside the sources.
exec nice -n 10 python3 -B "$script" "$@"
