#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# Traps: for signals, ignored ones, one that interrupts wait, one for the end.
# shellcheck source=hosts/bash/plugin.sh
source "${BASH_SOURCE[0]%/*}/plugin.sh"

work() {
    local interrupted=0
    kill -USR1 $$
    kill -TERM $$
    kill -HUP $$
    kill -USR2 $$
    # The trap interrupts wait, and the child lives on. It may come before the wait, and so it
    # comes until the child is told.
    trap 'interrupted=1' USR1
    { until read -r -t 0.05 _; do kill -USR1 $$; done; exit 5; } <>"$fifo" &
    local child=$!
    wait "$child"
    echo "waited: $?, $interrupted"
    trap '' USR1
    echo line >"$fifo"
    wait "$child"
    echo "child: $?"
    trap 'echo USR1' USR1
    (exit 7)
    echo "subshell: $?"
    (/bin/sh -c 'kill -KILL $$') 2>/dev/null
    echo "killed: $?"
    echo text | /bin/cat | /bin/grep -c text
    echo "pipeline: ${PIPESTATUS[*]}"
    trap
}

fifo="$SORVANE_HOSTS_FOLDER/fifo"
/usr/bin/mkfifo "$fifo"
trap 'echo USR1' USR1
trap 'echo TERM' TERM
trap 'echo HUP' HUP
trap '' USR2
trap 'echo end' EXIT
load
work 2>&1
unload
snapshot later
work 2>&1
trap - TERM
snapshot untrapped
kill -TERM $$
echo "is not reached"
