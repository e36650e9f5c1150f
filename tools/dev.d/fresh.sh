#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: runs ./dev demo and ./dev test in a bare tree of bookworm, trixie or noble
# usage: ./dev fresh SYSTEM [COMMAND ...]
# more: Other commands of ./dev, without arguments, take their place if they are named.
# time: about 10 minutes on 2 cores, and a network
source tools/baretree.sh

readonly systems=(bookworm trixie noble)

system="${1:-}"
if (($# < 1)) || [[ " ${systems[*]} " != *" $system "* ]]; then
    wrong_usage "fresh: takes one system of ${systems[*]}, and commands"
fi
commands=("${@:2}")
((${#commands[@]} > 0)) || commands=(demo test)
for command in "${commands[@]}"; do
    [[ -f "tools/dev.d/$command.sh" ]] || wrong_usage "fresh: unknown command \"$command\""
done
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
for command in "${commands[@]}"; do
    say "==== $system: ./dev $command"
    started=$SECONDS
    status=0
    run_in_bare_tree "$tree" sh -c "cd /srv/sorvane-signals && ./dev $command" || status=$?
    say "==== $system: ./dev $command ended with status $status after $((SECONDS - started)) s"
    ((status == 0)) || failed=$((failed + 1))
done

printf '%d passed, %d failed\n' $((${#commands[@]} - failed)) "$failed"
((failed == 0)) || fail "what failed is left in build/trees/$tree"
remove_bare_tree "$tree"
