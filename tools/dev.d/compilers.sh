#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: builds and runs every test, 64-bit, under each compiler that the system has
# usage: ./dev compilers
# more: g++ 12, 13 and 14, clang++ 14 to 19; those that can't be had are left out.
# time: two to three minutes for each compiler on 2 cores
source tools/presets.sh

(($# == 0)) || wrong_usage "compilers: takes no arguments, not \"$*\""
require_packages build test

# Asked for a name that it does not know, apt-get takes the "+" in it for a pattern.
can_be_had() {
    local names
    names=" $(apt-cache pkgnames "$1" | tr '\n' ' ')"
    [[ "$names" == *" $1 "* && "$(apt-cache policy "$1")" != *"Candidate: (none)"* ]]
}

# Sets presets: each is named as the package of its compiler, or of the C compiler that comes with it.
find_compilers() {
    local package
    presets=()
    while read -r package; do
        if installed "$package" || { can_be_had "$package" && (install_packages "$package"); }; then
            case "$package" in
                g++-*) presets+=("gcc-${package#g++-}") ;;
                clang-*) presets+=("$package") ;;
            esac
        else
            say "compilers: without $package"
        fi
    done < <(list_packages compilers)
}

find_compilers
say_time
test_presets "${presets[@]}"
