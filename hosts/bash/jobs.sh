#!/usr/bin/env bash
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
    /bin/sleep 100 &
    kill -TERM %+
    wait $! 2>/dev/null
    echo "terminated: $?"
    /bin/sh -c 'exit 6' &
    fg %+ >/dev/null
    echo "foreground: $?"
    echo "ends were told: $((count > 0))"
}

set -m
trap 'count=$((count + 1))' CHLD
load
work 2>&1
unload
snapshot later
work 2>&1
