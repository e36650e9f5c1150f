#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# build_signal_hook.sh SOURCE CRATES FOLDER: makes FOLDER/libsignal_hook.a of SOURCE and of the two
# crates that it stands on, as Debian packages their sources, with rustc alone.
set -euo pipefail

source="$1" crates="$2" folder="$3"
mkdir -p "$folder"

# crate NAME: the folder of its sources.
crate() {
    local found=("$crates/$1"-[0-9]*)
    printf '%s' "${found[0]}"
}

# Its build script says for which of the language's features it is to be compiled.
rustc --crate-name build --cap-lints allow -o "$folder/build-libc" "$(crate libc)/build.rs"
mapfile -t features < <(RUSTC=rustc "$folder/build-libc" |
    sed -n 's/^cargo:rustc-cfg=/--cfg=/p')

compile() {
    rustc --cap-lints allow -C opt-level=3 -C panic=abort -L "$folder" --out-dir "$folder" "$@"
}
compile --crate-type rlib --crate-name libc --cfg 'feature="std"' "${features[@]}" \
    "$(crate libc)/src/lib.rs"
compile --crate-type rlib --crate-name signal_hook_registry --extern "libc=$folder/liblibc.rlib" \
    "$(crate signal-hook-registry)/src/lib.rs"
compile --crate-type staticlib --crate-name signal_hook \
    --extern "signal_hook_registry=$folder/libsignal_hook_registry.rlib" "$source"
