#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: measures what the library costs, against plain system calls and other libraries
# program: tools/bench.py
# time: three to five minutes on 2 cores
source tools/devlib.sh

# What can't be had is left out.
install_peers() {
    local package
    while read -r package; do
        installed "$package" || (install_packages "$package") || say "bench: without $package"
    done < <(list_packages peers)
}

use_python tools/bench.py '--help|-h|--list' "$@"

require_packages build bench
for argument in "$@"; do
    case "$argument" in
        --peers) install_peers ;;
        --pictures)
            install_peers
            require_packages pictures
            ;;
    esac
done
say "Building"
run_logged build-bench build_preset bench || fail "the benchmarks could not be built"
exec /usr/bin/python3 -B tools/bench.py "$@"
