#!/bin/sh
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# Runs a GoogleTest program. GoogleTest removes the marker when the tests are over,
# so a process that the library ended before, with status 0, is not taken for a
# success.
#
# SORVANE_TEST_WRAPPER may name a command that runs each test, but does not list the
# tests.
marker="$(mktemp)" || exit 1

run() {
    TEST_PREMATURE_EXIT_FILE="$marker" "$@"
    status=$?
    if [ -e "$marker" ]; then
        rm -f "$marker"
        if [ "$status" -eq 0 ]; then
            echo "The process ended with status 0 before its tests were over."
            return 1
        fi
    fi
    return "$status"
}

# In the list, a comment behind a test's name tells the type or the value that it is
# for. CMake would make a part of the name of it, with addresses that differ in
# every run.
case " $* " in
    *" --gtest_list_tests "*)
        list="$(run "$@")"
        status=$?
        printf '%s\n' "$list" | sed 's/ *#.*//'
        exit "$status"
        ;;
    *)
        run ${SORVANE_TEST_WRAPPER:+"$SORVANE_TEST_WRAPPER"} "$@"
        ;;
esac
