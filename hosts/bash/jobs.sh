#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# Job control: jobs in the background, stopped and continued, a trap for their end.
# shellcheck source=hosts/bash/plugin.sh
source "${BASH_SOURCE[0]%/*}/plugin.sh"

count=0
work() {
    count=0
    /bin/sh -c 'kill -STOP $$; exit 4' &
    local child=$!
    # Until it has stopped.
    wait "$child"
    echo "stopped: $?"
    jobs | /bin/sed 's/  */ /g'
    kill -CONT %1
    wait "$child"
    echo "continued: $?"
    /bin/sh -c 'echo ready; read -r never <"$1"' sh "$never" >"$ready" &
    read -r _ <"$ready"
    kill -KILL %+
    wait $! 2>/dev/null
    echo "killed: $?"
    /bin/sh -c 'kill -STOP $$; exit 6' &
    wait $!
    fg %+ >/dev/null
    echo "foreground: $?"
    echo "ends were told: $((count > 0))"
}

ready="$SORVANE_HOSTS_FOLDER/ready"
never="$SORVANE_HOSTS_FOLDER/never"
/usr/bin/mkfifo "$ready" "$never"
set -m
trap 'count=$((count + 1))' CHLD
load
work 2>&1
unload
snapshot later
work 2>&1
