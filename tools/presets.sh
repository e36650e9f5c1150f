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
    grep -oE 'visited: +[0-9]+, [0-9]+ wrong' "$1" |
        awk '{ visited += $2; wrong += $3 } END { print visited + 0, wrong + 0 }'
}

# run_preset PRESET: sets passed, failed and skipped. What prevents a count counts
# as one failure, and so does a run without tests.
run_preset() {
    local preset="$1" report="$PWD/build/$1/junit.xml" log="$log_dir/test-$1.log"
    passed=0 failed=1 skipped=0
    run_logged "build-$preset" build_preset "$preset" || return 1

    local status=0
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
    ((failed == 0)) && return 0
    show_failures "$log"
    return 1
}

tests_over() {
    grep -cE ' +[0-9.]+ sec$' "$log_dir/test-$1.log" 2>/dev/null || true
}

# run_preset_watched PRESET: as run_preset, and tells every 20 seconds how far it is.
run_preset_watched() {
    local watcher status=0
    rm -f "$log_dir/test-$1.log"
    while sleep 20; do
        [[ ! -f "$log_dir/test-$1.log" ]] || say "$1: $(tests_over "$1") tests are over"
    done &
    watcher=$!
    run_preset "$1" || status=$?
    kill "$watcher" 2>/dev/null || true
    wait "$watcher" 2>/dev/null || true
    return "$status"
}
