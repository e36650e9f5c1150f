#!/bin/sh
# try_pkg_config.sh PREFIX LIBDIR VERSION COMPILER [FLAG...]: builds and runs the
# consumer with nothing but what pkg-config says about the installed library.
set -eu
libraries="$1/$2"
version="$3"
shift 3
PKG_CONFIG_PATH="$libraries/pkgconfig"
export PKG_CONFIG_PATH

pkg-config --exact-version="$version" sorvane-signals
program="$(mktemp)"
trap 'rm -f "$program"' EXIT
# The flags are several words each.
# shellcheck disable=SC2046
"$@" -std=c++17 "$(dirname "$0")/consumer.cpp" -o "$program" \
    $(pkg-config --cflags --libs sorvane-signals) "-Wl,-rpath,$libraries"
"$program"
