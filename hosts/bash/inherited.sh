#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# What programs inherit: what is trapped, what is ignored.
# shellcheck source=hosts/bash/plugin.sh
source "${BASH_SOURCE[0]%/*}/plugin.sh"

trap '' USR2 HUP
trap 'echo TERM' TERM
load
/bin/true
unload
/bin/cat /dev/null
exec /bin/false
