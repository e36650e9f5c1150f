// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// signal-hook-registry for programs in C.

extern crate signal_hook_registry;

use signal_hook_registry::SigId;
use std::os::raw::c_int;

/// Gives the identity of what was registered; false if it could not be.
#[no_mangle]
pub unsafe extern "C" fn signal_hook_register(
    signal: c_int,
    handler: extern "C" fn(c_int),
    identity: *mut SigId,
) -> bool {
    match signal_hook_registry::register_unchecked(signal, move |_| handler(signal)) {
        Ok(registered) => {
            identity.write(registered);
            true
        }
        Err(_) => false,
    }
}

#[no_mangle]
pub unsafe extern "C" fn signal_hook_unregister(identity: *const SigId) -> bool {
    signal_hook_registry::unregister(*identity)
}

/// How much room an identity takes.
#[no_mangle]
pub extern "C" fn signal_hook_identity_size() -> usize {
    std::mem::size_of::<SigId>()
}
