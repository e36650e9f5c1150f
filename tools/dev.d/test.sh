#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: builds and runs every test, 64-bit and 32-bit, under both compilers
# usage: ./dev test [PRESET ...]
# more: The presets: gcc-x86_64 gcc-i386 clang-x86_64 clang-i386; asan-x86_64 asan-i386 tsan-x86_64.
# time: about 7 minutes for all presets on 2 cores
source tools/presets.sh

readonly default_presets=(gcc-x86_64 gcc-i386 clang-x86_64 clang-i386)
readonly sanitizer_presets=(asan-x86_64 asan-i386 tsan-x86_64)

require_known_preset() {
    local known
    for known in "${default_presets[@]}" "${sanitizer_presets[@]}"; do
        [[ "$1" == "$known" ]] && return 0
    done
    wrong_usage "unknown preset \"$1\"; known: ${default_presets[*]} ${sanitizer_presets[*]}"
}

presets=("$@")
((${#presets[@]} > 0)) || presets=("${default_presets[@]}")
for preset in "${presets[@]}"; do
    require_known_preset "$preset"
done
require_packages build test

say_time
test_presets "${presets[@]}"
