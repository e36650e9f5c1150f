#!/usr/bin/env bash
# summary: checks the models in every order of their steps, and that they find mistakes
# shellcheck disable=SC2034  # the sets of each model are used by its name
source tools/devlib.sh

(($# == 0)) || wrong_usage "model: takes no arguments, not \"$*\""

readonly work=build/model

# Of each model: what is visited whole; what there is too much of, and of that as much as fits into
# bits of memory and a minute; and in what its mistakes are to be found.
readonly registry_whole=(
    "READERS=1 WITH_HANDLER"
    "READERS=2 WITH_HANDLER"
    "READERS=0 WITH_OTHER"
)
readonly registry_sampled=(
    "READERS=2 WITH_OTHER"
    "READERS=1 WITH_HANDLER WITH_OTHER"
)
readonly registry_searched=(
    "READERS=1 WITH_HANDLER"
    "READERS=0 WITH_OTHER"
    "READERS=1 WITH_OTHER"
    "READERS=0 WITH_HANDLER WITH_OTHER"
)
readonly ownership_whole=(
    ""
    "WITH_TAKER"
)
readonly ownership_sampled=()
readonly ownership_searched=(
    ""
    "WITH_TAKER"
)
readonly minutes_sampled=1

# make_checker MODEL MACROS OPTION...: the checker of a model with the given macros.
make_checker() {
    local macro flags=()
    for macro in $2; do
        flags+=("-D$macro")
    done
    rm -rf "$work/checker"
    mkdir -p "$work/checker"
    (cd "$work/checker" && spin -a "${flags[@]}" "$OLDPWD/model/$1.pml") >"$work/spin.log" 2>&1 ||
        { cat "$work/spin.log" >&2 && fail "spin does not take the model"; }
    # Processes that hold each other up rule out spin's own reduction of the orders.
    gcc -O2 -w -DSAFETY -DNOREDUCE -DVECTORSZ=2048 "${@:3}" -o "$work/checker/pan" \
        "$work/checker/pan.c" || fail "the checker could not be built"
}

# check OPTION...: runs the checker; the outcome is in its log.
check() {
    (cd "$work/checker" && ./pan -m2000000 "$@") >"$work/pan.log" 2>&1 || true
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
    printf '%-58s %s\n' "$2" "$3"
}

must_hold() {
    local right=no
    # A search that did not come to its end proves nothing.
    if [[ "$(errors)" == 0 ]] && ! grep -q 'max search depth too small\|out of memory' "$work/pan.log"; then
        right=yes
    fi
    report "$right" "$1" "$(states) states, $(errors) errors$2"
}

find_mistake() {
    local model="$1" mistake="$2" macros
    local -n searched="${model}_searched"
    for macros in "${searched[@]}"; do
        make_checker "$model" "$macros $mistake" -DCOLLAPSE -DMEMLIM=2000
        check -Q1
        if grep -q 'assertion violated' "$work/pan.log"; then
            report yes "$mistake" "found: ${macros:-as it is}"
            return
        fi
    done
    report no "$mistake" "NOT FOUND"
}

# check_model NAME
check_model() {
    local model="$1" macros mistake
    local -n whole="${model}_whole" sampled="${model}_sampled"
    say ""
    say "$model"
    for macros in "${whole[@]}"; do
        make_checker "$model" "$macros" -DCOLLAPSE -DMEMLIM=3000
        check
        must_hold "${macros:-as it is}" ""
    done
    for macros in "${sampled[@]}"; do
        make_checker "$model" "$macros" -DBITSTATE
        check -w30 "-Q$minutes_sampled"
        must_hold "$macros" ", as far as a minute goes"
    done
    while read -r mistake; do
        find_mistake "$model" "$mistake"
    done < <(grep -oE 'BROKEN_[A-Z_]+[A-Z]' "model/$model.pml" | sort -u)
}

require_packages model
check_model registry
check_model ownership

say ""
say "$passed passed, $failed failed"
((failed == 0))
