# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# How the scripts load the plug-in, if it is this run's turn for that, and call the probe.
enable -f "$SORVANE_HOSTS_PROBE" hosts_snapshot

load() {
    [[ -z "${SORVANE_HOSTS_LOAD-}" ]] || enable -f "$SORVANE_HOSTS_LOAD" hosts_plugin
}

unload() {
    [[ -z "${SORVANE_HOSTS_LOAD-}" ]] || enable -d hosts_plugin
}

snapshot() {
    hosts_snapshot "$1"
}
