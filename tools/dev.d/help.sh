#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: lists the commands
source tools/devlib.sh

(($# == 0)) || wrong_usage "help: takes no arguments, not \"$*\""

say "usage: ./dev COMMAND"
say "Each command installs what it needs first."
say ""
for script in tools/dev.d/*.sh; do
    name="$(basename "$script" .sh)"
    printf '  %-10s %s\n' "$name" "$(sed -n 's/^# summary: //p' "$script")"
done
