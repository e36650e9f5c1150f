#!/usr/bin/env bash
# summary: measures what the library costs, beside what its works cost without it, in one run
# program: tools/bench.py
# time: about a minute on 2 cores
source tools/devlib.sh

# removes_something PACKAGE: whether another one would have to go for it.
removes_something() {
    apt-get --simulate --no-install-recommends install "$1" 2>/dev/null | grep -q '^Remv'
}

# What can't be had is left out, and so is what stands in the way of something that is installed.
install_peers() {
    local package
    while read -r package; do
        if installed "$package"; then
            continue
        elif removes_something "$package"; then
            say "bench: without $package, for which another package would have to be removed"
        else
            (install_packages "$package") || say "bench: without $package"
        fi
    done < <(list_packages peers)
}

use_python tools/bench.py '--help|-h|--list' "$@"

require_packages build bench
for argument in "$@"; do
    case "$argument" in
        --peers) install_peers ;;
        --pictures) install_peers && require_packages pictures ;;
    esac
done
say "Building"
run_logged build-bench build_preset bench || fail "the benchmarks could not be built"
exec /usr/bin/python3 -B tools/bench.py "$@"
