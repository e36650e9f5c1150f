#!/bin/sh
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# run_under_memcheck.sh PROGRAM [ARGUMENT...]: ends with status 99 if memcheck finds
# an error, or a block that nothing leads to any more.
#
# Blocks that only an inner pointer leads to are no leak: SVObject puts a header in
# front of each object. Calls are not followed within one translation, or a thread
# could not go on at the instruction that a handled fault interrupted.
exec valgrind --quiet --vgdb=no --error-exitcode=99 --vex-guest-chase=no \
    --leak-check=full --show-leak-kinds=definite,indirect \
    --errors-for-leak-kinds=definite,indirect \
    --suppressions="$(dirname "$0")/deliberate_faults.supp" "$@"
