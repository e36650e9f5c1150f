#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: builds and runs every test, 64-bit, under each compiler that the system has
# usage: ./dev compilers [PRESET ...]
# more: The presets: clang-14 to clang-19, gcc-12 to gcc-14; those that can't be had are left out.
# time: two to three minutes for each compiler on 2 cores
source tools/presets.sh

# A newer g++ brings a standard library that an older clang++ does not understand: so these come
# first, and each compiler is installed when its turn comes.
readonly compilers=(clang-14 clang-15 clang-16 clang-17 clang-18 clang-19 gcc-12 gcc-13 gcc-14)
declare -A newest_understood=([clang-14]=12 [clang-15]=13)

# Asked for a name that it does not know, apt-get takes the "+" in it for a pattern.
can_be_had() {
    local names
    names=" $(apt-cache pkgnames "$1" | tr '\n' ' ')"
    [[ "$names" == *" $1 "* && "$(apt-cache policy "$1")" != *"Candidate: (none)"* ]]
}

# packages_of PRESET: what the compiler comes in, and what only some systems have beside it.
packages_of() {
    case "$1" in
        gcc-*) say "g++-${1#gcc-}" ;;
        clang-*) printf '%s\n' "$1" "libclang-rt-${1#clang-}-dev" ;;
    esac
}

prepare_preset() {
    local package
    while read -r package; do
        if ! installed "$package" && can_be_had "$package"; then
            install_packages "$package"
        fi
    done < <(packages_of "$1")
}

presets=("$@")
((${#presets[@]} > 0)) || presets=("${compilers[@]}")
for preset in "${presets[@]}"; do
    [[ " ${compilers[*]} " == *" $preset "* ]] ||
        wrong_usage "unknown preset \"$preset\"; known: ${compilers[*]}"
done
require_packages build test

newest_library="$(g++ -dumpversion | cut -d . -f 1)"
for folder in /usr/include/c++/[0-9]*; do
    ((${folder##*/} <= newest_library)) || newest_library="${folder##*/}"
done
available=()
for preset in "${presets[@]}"; do
    read -r package < <(packages_of "$preset")
    if ((newest_library > ${newest_understood[$preset]:-99})); then
        say "compilers: without $preset, which does not understand the standard library of g++ $newest_library"
    elif installed "$package" || can_be_had "$package"; then
        available+=("$preset")
    else
        say "compilers: without $preset"
    fi
done
((${#available[@]} > 0)) || fail "compilers: none of them can be had here"
say_time
test_presets "${available[@]}"
