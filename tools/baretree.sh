# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# Bare trees: a system with next to nothing in it, in a folder of build/trees.
source tools/devlib.sh

readonly trees_dir="$PWD/build/trees"

require_root() {
    ((EUID == 0)) || fail "only root can make a bare tree"
}

# require_bare_trees SYSTEM: refuses in one line what can't be had here.
require_bare_trees() {
    [[ -e "$(bootstrap_script "$1")" ]] ||
        fail "the debootstrap of this system does not know \"$1\""
}

# bootstrap_script SYSTEM: how debootstrap makes it. Older releases of it do not know the newest
# Ubuntu by name, but all of them are made in the same way.
bootstrap_script() {
    local scripts=/usr/share/debootstrap/scripts
    if [[ "$1" == noble && ! -e "$scripts/$1" ]]; then
        printf '%s\n' "$scripts/gutsy"
    else
        printf '%s\n' "$scripts/$1"
    fi
}

# bootstrap_options SYSTEM: one on each line.
bootstrap_options() {
    printf '%s\n' --variant=minbase
    if [[ "$1" == noble ]]; then
        # Ubuntu has most of what one develops with elsewhere.
        printf '%s\n' --components=main,universe
        # Debian has no keys of Ubuntu's.
        [[ -e /usr/share/keyrings/ubuntu-archive-keyring.gpg ]] || printf '%s\n' --no-check-gpg
    fi
}

leave_bare_tree() {
    ! mountpoint --quiet "$trees_dir/$1/proc" || umount "$trees_dir/$1/proc"
}

remove_bare_tree() {
    leave_bare_tree "$1"
    rm -rf --one-file-system "${trees_dir:?}/$1"
}

# make_bare_tree SYSTEM NAME: anew, with the folder /proc that programs expect, until the command
# that asks for it ends.
make_bare_tree() {
    local tree="$trees_dir/$2" options
    mapfile -t options < <(bootstrap_options "$1")
    remove_bare_tree "$2"
    mkdir -p "$trees_dir"
    run_logged "tree-$2" debootstrap "${options[@]}" "$1" "$tree" "" "$(bootstrap_script "$1")" ||
        fail "could not make a bare tree of $1"
    # shellcheck disable=SC2064
    trap "leave_bare_tree '$2'" EXIT
    mount --types proc proc "$tree/proc" || fail "a bare tree needs a /proc, which can't be mounted"
}

# run_in_bare_tree NAME COMMAND...: with nothing of this system's environment.
run_in_bare_tree() {
    local tree="$trees_dir/$1"
    shift
    env --ignore-environment HOME=/root TERM=dumb LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
        PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$tree" "$@"
}
