#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: checks the models of the registry and of subscriptions in every order of their steps, and that they find mistakes
source tools/devlib.sh

(($# == 0)) || wrong_usage "model: takes no arguments, not \"$*\""

readonly work=build/model
model="" whole=() searched=()

# make_checker MACROS: the checker of the model with the given macros.
make_checker() {
    local macro flags=()
    for macro in $1; do
        flags+=("-D$macro")
    done
    rm -rf "$work/checker"
    mkdir -p "$work/checker"
    (cd "$work/checker" && spin -a "${flags[@]}" "$OLDPWD/$model") >"$work/spin.log" 2>&1 ||
        { cat "$work/spin.log" >&2 && fail "spin does not take the model"; }
    gcc -O2 -w -DSAFETY -DCOLLAPSE -DMEMLIM=3000 -o "$work/checker/pan" "$work/checker/pan.c" ||
        fail "the checker could not be built"
}

# The outcome is in the log.
check() {
    (cd "$work/checker" && ./pan -m2000000) >"$work/pan.log" 2>&1 || true
}

errors() {
    sed -nE 's/.*errors: ([0-9]+).*/\1/p' "$work/pan.log"
}

states() {
    sed -nE 's/^ *([0-9.e+]+) states, stored.*/\1/p' "$work/pan.log"
}

passed=0
failed=0

# report RIGHT WHAT HOW
report() {
    if [[ "$1" == yes ]]; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        cat "$work/pan.log" >&2
    fi
    printf '%-66s %s\n' "$2" "$3"
}

# must_hold MACROS
must_hold() {
    local right=no
    make_checker "$1"
    check
    # A search that did not come to its end proves nothing.
    if [[ "$(errors)" == 0 ]] && ! grep -q 'max search depth too small\|out of memory' "$work/pan.log"; then
        right=yes
    fi
    report "$right" "${1:-as it is}" "$(states) states, $(errors) errors"
}

# find_mistake NAME
find_mistake() {
    local macros
    for macros in "${searched[@]}"; do
        make_checker "$macros $1"
        check
        if grep -q 'assertion violated\|invalid end state (' "$work/pan.log"; then
            report yes "$1" "found: $macros"
            return
        fi
    done
    report no "$1" "NOT FOUND"
}

# visit NAME: a model, which is visited whole with each of the macros in `whole`; in those in
# `searched` each of its mistakes is looked for until it is found.
visit() {
    local macros mistake
    model="model/$1.pml"
    say "$model"
    for macros in "${whole[@]}"; do
        must_hold "$macros"
    done
    while read -r mistake; do
        find_mistake "$mistake"
    done < <(grep -oE 'BROKEN_[A-Z_]+[A-Z]' "$model" | sort -u)
    say ""
}

require_packages model

whole=(
    ""
    "CHANGERS=2"
    "DISPATCHERS=3"
    "DISPATCHERS=3 CHANGES=1 WITH_HANDLER"
    "CHANGERS=2 WITH_CLEAR WITH_TEARDOWN"
    "CHANGES=3 SIGNALS=2 WITH_CLEAR WITH_TEARDOWN"
    "WITH_CLEAR WITH_TEARDOWN WITH_HANDLER"
    "WITH_CLEAR WITH_TEARDOWN HOST_CHANGES=1"
    "WITH_CLEAR WITH_HANDLER HOST_CHANGES=1"
    "CHANGERS=2 CHANGES=1 WITH_CLEAR HOST_CHANGES=1"
    "WITH_CHAIN HOST_CHANGES=1"
    "NEVER_TAKEN WITH_CLEAR WITH_TEARDOWN WITH_HANDLER HOST_CHANGES=1"
)
searched=(
    "CHANGES=1"
    "CHANGES=1 WITH_HANDLER"
    "CHANGES=1 NEVER_TAKEN"
    "WITH_CLEAR"
    "WITH_TEARDOWN"
    "HOST_CHANGES=1"
    "CHANGES=1 WITH_CHAIN HOST_CHANGES=1"
)
visit ownership

whole=(
    ""
    "CALLS=2"
    "CALLERS=3 CELLS=1"
    "WITH_INTERRUPTION CALLS=2"
    "WITH_INTERRUPTION CALLERS=3"
)
searched=("" "WITH_INTERRUPTION")
visit entries

say "$passed passed, $failed failed"
((failed == 0))
