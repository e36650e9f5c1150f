#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: fuzzes tables and managers, 64-bit and 32-bit, each for SECONDS (60), with progress
source tools/presets.sh

readonly bodies=(table manager)
readonly architectures=(x86_64 i386)
# What a single input takes at most, and more.
readonly patience=60
readonly progress_interval=10

fuzzer=0
# The fuzzer may have any signal ignored or handled just then, but not this one.
stop_fuzzer() {
    ((fuzzer == 0)) || kill -KILL "$fuzzer" 2>/dev/null || true
}

interrupted() {
    stop_fuzzer
    fail "fuzz: interrupted"
}

require_corpus() {
    local files=("fuzz/corpus/$1"/*)
    [[ -s "${files[0]}" ]] || fail "fuzz: there is no corpus in fuzz/corpus/$1"
}

runs_so_far() {
    grep -oE '^#[0-9]+' "$1" | tail -n 1 | tr -d '#'
}

# watch_fuzzer NAME LOG: shows how it goes on, and ends it when it doesn't.
watch_fuzzer() {
    local started=$SECONDS shown=$SECONDS
    while kill -0 "$fuzzer" 2>/dev/null; do
        sleep 1
        if ((SECONDS - shown >= progress_interval)); then
            shown=$SECONDS
            say "$1: $((SECONDS - started)) of $seconds s, $(runs_so_far "$2") runs"
        fi
        ((SECONDS - started <= seconds + patience)) || stop_fuzzer
    done
}

# What the fuzzer wrote down; or, where the process ended before it could, what it was trying.
name_finding() {
    local folder="$1" program="$2" finding
    finding="$(find "$folder" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'leak-*' \
        -o -name 'oom-*' \) | sort | head -n 1)"
    if [[ -z "$finding" ]]; then
        finding="$folder/died"
        cp "$folder/last-input" "$finding" 2>/dev/null || return 0
    fi
    say "The input is kept in $finding; to see it again: ${fixed_addresses[*]} $program $finding"
}

# fuzz BODY ARCHITECTURE
fuzz() {
    local name="$1-$2" folder="build/fuzz/$1-$2" program="build/fuzz-$2/fuzz/fuzz_$1"
    local log="$folder/log" status=0
    mkdir -p "$folder/corpus"
    rm -f "$folder"/{crash,leak,oom}-* "$folder/died" "$folder/last-input"
    # Neither the fuzzer's timer nor its thread: the managers' signals are all there may be. And
    # handlers with the same addresses in every run, so that what is found is found again.
    SORVANE_FUZZ_LAST_INPUT="$folder/last-input" "${fixed_addresses[@]}" "$program" -timeout=0 \
        -rss_limit_mb=0 -len_control=0 -max_len=2048 -max_total_time="$seconds" \
        -artifact_prefix="$folder/" "$folder/corpus" "fuzz/corpus/$1" >"$log" 2>&1 &
    fuzzer=$!
    watch_fuzzer "$name" "$log"
    wait "$fuzzer" 2>/dev/null || status=$?
    fuzzer=0
    if ((status == 0)) && grep -q '^Done ' "$log"; then
        say "$name: $(grep '^Done ' "$log")"
        return 0
    fi
    tail -n 20 "$log" >&2
    say "$name: FAILED; the whole log is $log"
    name_finding "$folder" "$program"
    return 1
}

seconds="${1-60}"
if (($# > 1)) || [[ ! "$seconds" =~ ^[1-9][0-9]{0,5}$ ]]; then
    wrong_usage "fuzz: seconds are a whole number from 1 to 999999, not \"$*\""
fi
for body in "${bodies[@]}"; do
    require_corpus "$body"
done

require_packages build test
trap interrupted INT TERM
passed=0
failed=0
for architecture in "${architectures[@]}"; do
    say "Building the fuzzers, $architecture"
    run_logged "build-fuzz-$architecture" build_preset "fuzz-$architecture" \
        --target fuzz_table fuzz_manager || fail "the fuzzers could not be built"
    for body in "${bodies[@]}"; do
        if fuzz "$body" "$architecture"; then
            passed=$((passed + 1))
        else
            failed=$((failed + 1))
        fi
    done
done

printf '\n%d passed, %d failed\n' "$passed" "$failed"
((failed == 0))
