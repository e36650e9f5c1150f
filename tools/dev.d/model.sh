#!/usr/bin/env bash
# summary: checks the model of the registry in every order of its steps, and that it finds mistakes
source tools/devlib.sh

(($# == 0)) || wrong_usage "model: takes no arguments, not \"$*\""

readonly model=model/registry.pml
readonly work=build/model

# What is visited whole, and what there is too much of: of that, as much as fits into bits of memory
# and a minute.
readonly whole=(
    "READERS=1 WITH_HANDLER"
    "READERS=2 WITH_HANDLER"
    "READERS=0 WITH_OTHER"
)
readonly sampled=(
    "READERS=2 WITH_OTHER"
    "READERS=1 WITH_HANDLER WITH_OTHER"
)
readonly minutes_sampled=1

# make_checker SIZES OPTION...: the checker of the model with the given macros.
make_checker() {
    local macro flags=()
    for macro in $1; do
        flags+=("-D$macro")
    done
    rm -rf "$work/checker"
    mkdir -p "$work/checker"
    (cd "$work/checker" && spin -a "${flags[@]}" "$OLDPWD/$model") >"$work/spin.log" 2>&1 ||
        { cat "$work/spin.log" >&2 && fail "spin does not take the model"; }
    # Processes that hold each other up rule out spin's own reduction of the orders.
    gcc -O2 -w -DSAFETY -DNOREDUCE -DVECTORSZ=2048 "${@:2}" -o "$work/checker/pan" \
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
    local mistake="$1" macros
    for macros in "READERS=1 WITH_HANDLER" "READERS=0 WITH_OTHER" "READERS=1 WITH_OTHER" \
        "READERS=0 WITH_HANDLER WITH_OTHER"; do
        make_checker "$macros $mistake" -DCOLLAPSE -DMEMLIM=2000
        check -Q1
        if grep -q 'assertion violated' "$work/pan.log"; then
            report yes "$mistake" "found: $macros"
            return
        fi
    done
    report no "$mistake" "NOT FOUND"
}

require_packages model
for macros in "${whole[@]}"; do
    make_checker "$macros" -DCOLLAPSE -DMEMLIM=3000
    check
    must_hold "$macros" ""
done
for macros in "${sampled[@]}"; do
    make_checker "$macros" -DBITSTATE
    check -w30 "-Q$minutes_sampled"
    must_hold "$macros" ", as far as a minute goes"
done
while read -r mistake; do
    find_mistake "$mistake"
done < <(grep -oE 'BROKEN_[A-Z_]+[A-Z]' "$model" | sort -u)

say ""
say "$passed passed, $failed failed"
((failed == 0))
