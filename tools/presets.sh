# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# Runs the tests under one preset and counts them.
source tools/devlib.sh

# The programs of the sanitizers need an address space that older run-time
# libraries cannot set up where the kernel randomises it strongly. Put before a
# command, this has it run without that.
fixed_addresses=()
if setarch --addr-no-randomize true 2>/dev/null; then
    fixed_addresses=(setarch --addr-no-randomize)
fi

# What a command adds to the options of ctest.
ctest_options=()

run_ctest() {
    local preset="$1" report="$2"
    local command=(ctest --preset "$preset" --parallel "$(nproc)" --output-on-failure
        --test-output-size-passed 4096 --output-junit "$report" "${ctest_options[@]}")
    case "$preset" in
        asan-* | tsan-*) "${fixed_addresses[@]}" "${command[@]}" ;;
        *) "${command[@]}" ;;
    esac
}

# What failed, without the hundreds of lines on what passed or was skipped.
show_failures() {
    grep -vE '^ *Start +[0-9]+: | Passed +[0-9.]+ sec$|\*\*\*Skipped|\(Skipped\)$' "$1" >&2 || true
}

report_count() {
    grep -oE -m 1 "\\b$2=\"[0-9]+\"" "$1" | tr -cd '0-9'
}

# What the stepping tests say: at how many instructions a signal was delivered, and how many of
# these deliveries went wrong.
count_steps() {
    { grep -oE 'visited: +[0-9]+, [0-9]+ wrong' "$1" 2>/dev/null || true; } |
        awk '{ visited += $2; wrong += $3 } END { print visited + 0, wrong + 0 }'
}

# failed_tests REPORT: their names, one a line.
failed_tests() {
    grep -oE '<testcase name="[^"]*"[^>]* status="fail"' "$1" |
        sed -E 's/<testcase name="([^"]*)".*/\1/'
}

# show_failure PRESET: what went wrong in its build or its tests, and how to run a test alone.
show_failure() {
    local preset="$1" report="build/$1/junit.xml" log="$log_dir/test-$1.log" name
    if [[ ! -f "$log" ]]; then
        say "$preset could not be built; the whole log is $log_dir/build-$preset.log" >&2
        sed -n '/^FAILED: /,$p' "$log_dir/build-$preset.log" | grep . >&2 ||
            tail -n 20 "$log_dir/build-$preset.log" >&2
        return 0
    fi
    show_failures "$log"
    [[ -f "$report" ]] || return 0
    say "Each that failed, alone:" >&2
    failed_tests "$report" | while read -r name; do
        say "  ctest --preset $preset --output-on-failure -R '^${name//\//.}\$'" >&2
    done
}

# How far a preset's build or tests are, as its logs tell.
progress_of() {
    local build_log="$log_dir/build-$1.log" test_log="$log_dir/test-$1.log" steps last
    if [[ -f "$test_log" ]]; then
        steps="$(grep -oE '^ *[0-9]+/[0-9]+ Test' "$test_log" | tail -n 1 | tr -cd '0-9/')"
        last="$(sed -nE 's/^ +Start +[0-9]+: //p' "$test_log" | tail -n 1)"
        say "${steps:-no} tests over, now ${last:0:60}"
    else
        steps="$(grep -oE '^\[[0-9]+/[0-9]+\]' "$build_log" 2>/dev/null | tail -n 1)"
        say "building ${steps:-begins}"
    fi
}

# Tells again and again how far a preset is: on a terminal in one line, elsewhere now and then.
watch_preset() {
    local preset="$1" started=$SECONDS
    local interval=20 before="" after='\n'
    if [[ -t 3 ]]; then
        interval=1 before='\r\033[K' after=""
    fi
    # What outlives the watch keeps nobody waiting for the end of the output.
    while sleep "$interval" >/dev/null 2>&1 3>&-; do
        printf "$before%s: %s, %d s$after" "$preset" "$(progress_of "$preset")" \
            $((SECONDS - started)) >&3
    done
}

# Where progress is shown, also by what is logged.
exec 3>&1

# run_preset PRESET: sets passed, failed and skipped, and shows how far it is. What prevents a count
# counts as one failure, and so does a run without tests.
run_preset() {
    local watcher status=0
    rm -f "$log_dir/test-$1.log" "$log_dir/build-$1.log"
    watch_preset "$1" &
    watcher=$!
    build_and_test "$1" || status=$?
    kill "$watcher" 2>/dev/null || true
    wait "$watcher" 2>/dev/null || true
    [[ ! -t 3 ]] || printf '\r\033[K' >&3
    return "$status"
}

build_and_test() {
    local preset="$1" report="$PWD/build/$1/junit.xml" log="$log_dir/test-$1.log" status=0
    passed=0 failed=1 skipped=0
    require_writable_tree
    build_preset "$preset" >"$log_dir/build-$preset.log" 2>&1 || return 1

    rm -f "$report"
    run_ctest "$preset" "$report" >"$log" 2>&1 || status=$?
    if [[ -f "$report" ]]; then
        failed="$(report_count "$report" failures)"
        skipped=$(($(report_count "$report" skipped) + $(report_count "$report" disabled)))
        passed=$(($(report_count "$report" tests) - failed - skipped))
    fi
    if ((failed == 0 && (status != 0 || passed == 0))); then
        failed=1
    fi
    ((failed == 0))
}

# What a command does before a preset's turn.
prepare_preset() { :; }

# test_presets PRESET...: the tests of each, what went wrong, a table, and the count.
test_presets() {
    local preset started visited wrong rows=() failures=()
    local total_visited=0 total_wrong=0 total_passed=0 total_failed=0
    for preset in "$@"; do
        prepare_preset "$preset"
        say "$preset: building and testing"
        started=$SECONDS
        run_preset "$preset" || failures+=("$preset")
        rows+=("$(printf '%-14s %7d %7d %7d %7d s' \
            "$preset" "$passed" "$failed" "$skipped" $((SECONDS - started)))")
        read -r visited wrong < <(count_steps "build/$preset/junit.xml")
        total_visited=$((total_visited + visited))
        total_wrong=$((total_wrong + wrong))
        total_passed=$((total_passed + passed))
        total_failed=$((total_failed + failed))
    done
    for preset in "${failures[@]}"; do
        say "==== $preset: FAILED"
        show_failure "$preset"
    done
    printf '\n%-14s %7s %7s %7s %9s\n' preset passed failed skipped time
    printf '%s\n' "${rows[@]}"
    printf '\na signal delivered at %d instructions of the operations, %d went wrong\n' \
        "$total_visited" "$total_wrong"
    printf '%d passed, %d failed\n' "$total_passed" "$total_failed"
    ((total_failed == 0))
}
