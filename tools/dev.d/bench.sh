#!/usr/bin/env bash
# summary: measures what the library costs, beside what its works cost without it, in one run
source tools/devlib.sh

# Asks only for what can be asked without an effect.
asks_only() {
    local argument
    for argument in "$@"; do
        [[ "$argument" != --help && "$argument" != -h && "$argument" != --list ]] || return 0
    done
    return 1
}

installed python3 || install_packages python3
# Nothing that Python compiles is left beside the sources. Misuse is told before anything is built.
/usr/bin/python3 -B tools/bench.py --check "$@"
if asks_only "$@"; then
    exec /usr/bin/python3 -B tools/bench.py "$@"
fi

require_packages build
say "Building"
run_logged build-bench build_preset bench || fail "the benchmarks could not be built"
exec /usr/bin/python3 -B tools/bench.py "$@"
