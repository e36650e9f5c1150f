# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# What the commands of ./dev share. They run in the root of the tree.
set -euo pipefail

readonly log_dir=build/logs

say() {
    printf '%s\n' "$*"
}

fail() {
    printf 'dev: %s\n' "$*" >&2
    exit 1
}

wrong_usage() {
    printf 'dev: %s\n' "$*" >&2
    exit 2
}

# run_logged NAME COMMAND...: silent, unless the command fails.
run_logged() {
    local log="$log_dir/$1.log"
    shift
    mkdir -p "$log_dir"
    "$@" >"$log" 2>&1 && return 0
    cat "$log" >&2
    return 1
}

# list_packages LIST...: the packages named in packaging/packages/LIST.txt.
list_packages() {
    local list line
    for list in "$@"; do
        while read -r line || [[ -n "$line" ]]; do
            line="${line%%#*}"
            [[ -z "${line//[[:space:]]/}" ]] || say "${line//[[:space:]]/}"
        done <"packaging/packages/$list.txt"
    done
}

installed() {
    [[ "$(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null)" == installed ]]
}

may_use_sudo() {
    command -v sudo >/dev/null || return 1
    sudo --non-interactive true 2>/dev/null || { [[ -t 0 ]] && sudo --validate; }
}

# apt_install PREFIX... -- PACKAGE...: the prefix is what lends root's rights, if anything.
apt_install() {
    local prefix=()
    while [[ "$1" != -- ]]; do
        prefix+=("$1")
        shift
    done
    shift
    local apt=("${prefix[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300)
    "${apt[@]}" update && "${apt[@]}" install --yes --no-install-recommends "$@"
}

install_packages() {
    local prefix=()
    if ((EUID != 0)); then
        may_use_sudo || fail "cannot become root to install the missing packages: $*"
        prefix=(sudo)
    fi
    say "Installing $*"
    run_logged install apt_install "${prefix[@]}" -- "$@" || fail "could not install: $*"
}

# require_packages LIST...: installs what is missing of the lists.
require_packages() {
    local package missing=()
    while read -r package; do
        installed "$package" || missing+=("$package")
    done < <(list_packages "$@")
    ((${#missing[@]} == 0)) || install_packages "${missing[@]}"
}

# build_preset PRESET [OPTION...]: the options are those of `cmake --build`.
build_preset() {
    cmake --preset "$1" && cmake --build --preset "$1" --parallel "$(nproc)" "${@:2}"
}

# use_python PROGRAM QUESTIONS ARGUMENT...: what a command does that is written in Python, before
# anything is installed or built for it. Misuse is told; and if an argument is one of the questions,
# as in '-h|--list', the program answers, and that is all.
use_python() {
    local program="$1" questions="$2" argument
    shift 2
    installed python3 || install_packages python3
    # Nothing that Python compiles is left beside the sources.
    /usr/bin/python3 -B "$program" --check "$@"
    for argument in "$@"; do
        [[ ! "$argument" =~ ^($questions)$ ]] || exec /usr/bin/python3 -B "$program" "$@"
    done
}
