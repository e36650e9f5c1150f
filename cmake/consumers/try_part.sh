#!/bin/sh
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# try_part.sh BUILD_DIR SOURCES OPTION...: builds, tests and installs a project that has the library
# as a part, and then a program that uses what was installed.
set -eu
build="$1" sources="$2"
shift 2
projects="$(dirname "$0")/part"

rm -rf "$build"
cmake -G Ninja -S "$projects" -B "$build" "-DSOURCES=$sources" "-DCMAKE_INSTALL_PREFIX=$build/installed" "$@"
cmake --build "$build"
# The parent's own test, and no other one.
ctest --test-dir "$build" --output-on-failure
[ "$(ctest --test-dir "$build" -N | grep -c '^ *Test #')" -eq 1 ]

case " $* " in
    *" -DFETCH=ON "*) exit 0 ;;
esac
cmake --install "$build"
cmake -G Ninja -S "$projects/user" -B "$build/user" "-DCMAKE_PREFIX_PATH=$build/installed" "$@"
cmake --build "$build/user"
"$build/user/user"
