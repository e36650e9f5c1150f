#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# summary: makes the Debian packages, and tries them in a bare tree
# usage: ./dev package
# time: one to five minutes on 2 cores
source tools/baretree.sh

(($# == 0)) || wrong_usage "package: takes no arguments, not \"$*\""
require_root
require_packages package
system="$(. /etc/os-release && printf '%s' "$VERSION_CODENAME")"
require_bare_trees "$system"

readonly package_dir=build/package
readonly tree_name=package
steps_passed=0

# step SENTENCE COMMAND...: one line; the rest is in vain if it fails.
step() {
    local sentence="$1" started=$SECONDS
    shift
    if ! run_logged "package-$1" "$@"; then
        printf '%-52s FAILED\n%d passed, 1 failed\n' "$sentence" "$steps_passed"
        exit 1
    fi
    steps_passed=$((steps_passed + 1))
    printf '%-52s ok %5d s\n' "$sentence" $((SECONDS - started))
}

# The packages' version is the library's.
same_version() {
    local header packages
    header="$(sed -n 's/^#define SORVANE_SIGNALS_VERSION_[A-Z]* //p' \
        libsrc/include/sorvane/svversion.h | paste -sd .)"
    packages="$(dpkg-parsechangelog --file packaging/debian/changelog --show-field Version)"
    printf 'svversion.h: %s, packages: %s\n' "$header" "$packages"
    [[ "$header" == "$packages" ]]
}

make_packages() {
    rm -rf "$package_dir"
    mkdir -p "$package_dir/sorvane-signals"
    tar --create --exclude=./build --exclude='./.git' . |
        tar --extract --no-same-owner --directory "$package_dir/sorvane-signals" &&
        cp -r packaging/debian "$package_dir/sorvane-signals/debian" &&
        (cd "$package_dir/sorvane-signals" && dpkg-buildpackage --unsigned-source --unsigned-changes)
}

check_packages() {
    lintian --allow-root --fail-on error,warning "$package_dir"/*.changes
}

# What the packages depend on is there before them, and stays.
prepare_tree() {
    run_in_bare_tree "$tree_name" apt-get update &&
        run_in_bare_tree "$tree_name" apt-get install --yes --no-install-recommends \
            binutils cmake g++ make pkgconf python3 &&
        cp -r "$package_dir/sorvane-signals" "$trees_dir/$tree_name/srv/" &&
        mkdir "$trees_dir/$tree_name/srv/packages" &&
        cp "$package_dir"/libsorvane-signals{1,-dev,-doc}_*.deb "$trees_dir/$tree_name/srv/packages"
}

# Everything in the tree but logs, caches and what dpkg and apt note for themselves.
list_tree() {
    (cd "$trees_dir/$tree_name" && find . -xdev \( -path ./proc -o -path ./var/log -o -path ./var/cache \
        -o -path ./var/lib/apt -o -path ./var/lib/dpkg -o -path ./tmp \) -prune -o \
        -printf '%p %y %m %u %g %s %l\n' | grep -v '^\./[^ ]* d ' | sort)
    run_in_bare_tree "$tree_name" dpkg-query --show
}

install_packages_there() {
    list_tree >"$package_dir/before.txt" &&
        run_in_bare_tree "$tree_name" sh -c 'apt-get install --yes --no-install-recommends /srv/packages/*.deb'
}

use_packages() {
    run_in_bare_tree "$tree_name" sh -c 'cd /srv/sorvane-signals && debian/tests/consume' &&
        run_in_bare_tree "$tree_name" test -s /usr/share/doc/libsorvane-signals-dev/docs/limitations.md
}

remove_packages() {
    run_in_bare_tree "$tree_name" sh -c 'apt-get purge --yes "libsorvane-signals*"' &&
        list_tree >"$package_dir/after.txt" &&
        diff "$package_dir/before.txt" "$package_dir/after.txt"
}

step "The packages have the library's version" same_version
step "The packages are made" make_packages
step "lintian has no error and no warning" check_packages
make_bare_tree "$system" "$tree_name"
step "A bare tree of $system has what they depend on" prepare_tree
step "The packages are installed there" install_packages_there
step "Programs and plug-ins use them there" use_packages
step "They are removed without a trace" remove_packages
remove_bare_tree "$tree_name"
say "The packages are in $package_dir."
printf '%d passed, 0 failed\n' "$steps_passed"
