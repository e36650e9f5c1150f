#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: runs ./dev demo and ./dev test in a bare tree of bookworm, trixie or noble
# usage: ./dev fresh SYSTEM
# time: about 20 minutes on 2 cores, and a network
source tools/baretree.sh

readonly systems=(bookworm trixie noble)

system="${1:-}"
if (($# != 1)) || [[ " ${systems[*]} " != *" $system "* ]]; then
    wrong_usage "fresh: takes one system of ${systems[*]}"
fi
require_root
require_packages fresh
require_bare_trees "$system"

tree="fresh-$system"
say "Making a bare tree of $system"
make_bare_tree "$system" "$tree"
say "Cloning the last commit into it"
run_logged "clone-$tree" git clone --no-hardlinks "$PWD" "$trees_dir/$tree/srv/sorvane-signals" ||
    fail "could not clone the tree"

failed=0
for command in demo test; do
    say "==== $system: ./dev $command"
    started=$SECONDS
    status=0
    run_in_bare_tree "$tree" sh -c "cd /srv/sorvane-signals && ./dev $command" || status=$?
    say "==== $system: ./dev $command ended with status $status after $((SECONDS - started)) s"
    ((status == 0)) || failed=$((failed + 1))
done

printf '%d passed, %d failed\n' $((2 - failed)) "$failed"
((failed == 0)) || fail "what failed is left in build/trees/$tree"
remove_bare_tree "$tree"
