#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: loads a plug-in into programs of others, and checks that they behave as they do without it
# program: tools/hosts.py
# time: about a minute; with --quick, 15 seconds
source tools/devlib.sh

readonly nginx=build/hosts/nginx

# Installing it would start a server on this machine; so it is only unpacked.
unpack_nginx() {
    local packages=build/hosts/packages
    [[ -z "$(command -v nginx || command -v /usr/sbin/nginx)" ]] || return 0
    [[ ! -x "$nginx/usr/sbin/nginx" ]] || return 0
    rm -rf "$packages" "$nginx" && mkdir -p "$packages"
    (cd "$packages" && apt-get download nginx) && dpkg-deb --extract "$packages"/nginx_*.deb "$nginx"
}

use_python tools/hosts.py '--help|-h|--list|--expected' "$@"

require_packages build
mapfile -t packages < <(list_packages hosts)
for package in "${packages[@]}"; do
    installed "$package" || (install_packages "$package") || say "hosts: without $package"
done
run_logged unpack-nginx unpack_nginx || say "hosts: nginx could not be had"

say "Building the plug-in"
run_logged build-hosts build_preset hosts || fail "the plug-in could not be built"
exec /usr/bin/python3 -B tools/hosts.py "$@"
