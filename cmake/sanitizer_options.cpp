// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The sanitizers would otherwise install handlers of their own for the faults
// before main() runs. To this library these are pre-existing handlers, which
// decide whether a fault ends the process, so the programs would no longer be
// tested in the state in which they normally run.

#define FAULTS_BELONG_TO_THE_PROGRAM                                                \
    "handle_segv=0:handle_sigbus=0:handle_sigill=0:handle_sigfpe=0:handle_abort=0:" \
    "use_sigaltstack=0"

extern "C" {

// A request for more memory than there is must return null, as it does without
// the sanitizer: what the library does then is part of what is tested.
const char* __asan_default_options() {
    return FAULTS_BELONG_TO_THE_PROGRAM
        ":allocator_may_return_null=1:detect_stack_use_after_return=0";
}

const char* __tsan_default_options() {
    return FAULTS_BELONG_TO_THE_PROGRAM ":allocator_may_return_null=1:halt_on_error=1";
}

// Versions of the registry are kept for good, in one list. Those that a handler
// made lie in mappings of their own, where LeakSanitizer does not look for
// pointers, so those that come behind one in the list seem to be lost.
const char* __lsan_default_suppressions() {
    return "leak:SVRecycler\n";
}

const char* __ubsan_default_options() {
    return "print_stacktrace=1";
}
}
