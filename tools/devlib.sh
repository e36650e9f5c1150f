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

# head_line NAME SCRIPT: what the head of a command's script says under a name.
head_line() {
    sed -n "/^[^#]/q; s/^# $1: //p" "$2"
}

# Says beforehand how long the command takes, as its head has it.
say_time() {
    say "This takes $(head_line time "$0")."
}

require_writable_tree() {
    mkdir -p "$log_dir" 2>/dev/null || true
    [[ -w "$log_dir" ]] || fail "cannot write to $PWD/build, where everything is built"
}

# run_logged NAME COMMAND...: silent, unless the command fails.
run_logged() {
    local log="$log_dir/$1.log"
    shift
    require_writable_tree
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

# apt_install PREFIX... -- PACKAGE...: the prefix is what lends root's rights, if anything. Nothing
# that is there is removed for a package.
apt_install() {
    local prefix=()
    while [[ "$1" != -- ]]; do
        prefix+=("$1")
        shift
    done
    shift
    local apt=("${prefix[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300)
    "${apt[@]}" update && "${apt[@]}" install --yes --no-remove --no-install-recommends "$@"
}

# The first thing that went wrong in the log.
install_error() {
    grep -m 1 -oE '(Temporary failure resolving|Could not resolve|Could not connect to|Unable to locate package|No space left).*' \
        "$log_dir/install.log" || tail -n 1 "$log_dir/install.log"
}

install_packages() {
    local prefix=()
    command -v apt-get >/dev/null ||
        fail "there is no apt-get here to install what is missing: $*"
    if ((EUID != 0)); then
        may_use_sudo || fail "cannot become root to install the missing packages: $*"
        prefix=(sudo)
    fi
    say "Installing $*"
    require_writable_tree
    apt_install "${prefix[@]}" -- "$@" >"$log_dir/install.log" 2>&1 ||
        fail "could not install $* ($(install_error)); the log is $log_dir/install.log"
}

# require_packages LIST...: installs what is missing of the lists.
require_packages() {
    local package missing=()
    require_writable_tree
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
