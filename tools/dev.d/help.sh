#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: lists the commands, or tells about one
# usage: ./dev help [COMMAND]
source tools/devlib.sh

# The head of a command's script tells about it: "# summary:", "# usage:" and, where it is worth
# saying, "# time:" and "# more:". "# program:" names what knows the options.
list_commands() {
    local script name
    say "usage: ./dev COMMAND [ARGUMENT ...]"
    say "       ./dev help COMMAND, or ./dev COMMAND --help"
    say "Each command installs what it needs first."
    say ""
    for script in tools/dev.d/*.sh; do
        name="$(basename "$script" .sh)"
        printf '  %-12s %s\n' "$name" "$(head_line summary "$script")"
    done
}

tell_about() {
    local script="tools/dev.d/$1.sh" program duration
    [[ "$1" =~ ^[a-z][a-z-]*$ && -f "$script" ]] ||
        wrong_usage "help: unknown command \"$1\"; \"./dev help\" lists the commands"
    program="$(head_line program "$script")"
    duration="$(head_line time "$script")"
    if [[ -n "$program" ]]; then
        installed python3 || install_packages python3
        /usr/bin/python3 -B "$program" --help
    else
        say "usage: $(head_line usage "$script")"
        say ""
        say "$1: $(head_line summary "$script")"
        head_line more "$script"
    fi
    [[ -z "$duration" ]] || printf '\nIt takes %s.\n' "$duration"
}

case $# in
    0) list_commands ;;
    1) tell_about "$1" ;;
    *) wrong_usage "help: takes one command at most, not \"$*\"" ;;
esac
