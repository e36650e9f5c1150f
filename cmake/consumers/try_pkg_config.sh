#!/bin/sh
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# try_pkg_config.sh PREFIX LIBDIR VERSION COMPILER [FLAG...]: builds and runs the consumer with
# nothing but what pkg-config says about the installed library, the shared one and the static one.
set -eu
libraries="$1/$2"
version="$3"
shift 3
PKG_CONFIG_PATH="$libraries/pkgconfig"
export PKG_CONFIG_PATH
source="$(dirname "$0")/consumer.cpp"

pkg-config --exact-version="$version" sorvane-signals
folder="$(mktemp -d)"
trap 'rm -rf "$folder"' EXIT

# build PROGRAM PKG_CONFIG_OPTION...: a path in the flags may have spaces, which are escaped.
build() {
    program="$1"
    shift
    eval "set -- $(pkg-config --cflags --libs "$@" sorvane-signals)"
    $compiler -std=c++17 "$source" -o "$program" "$@"
}

compiler="$*"
build "$folder/shared"
LD_LIBRARY_PATH="$libraries" "$folder/shared"
LD_LIBRARY_PATH="$libraries" ldd "$folder/shared" | grep -q "libsorvane-signals.so.${version%%.*} =>"

compiler="$* -static"
build "$folder/static" --static
"$folder/static"
