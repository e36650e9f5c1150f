// Whether a test is run by an emulator, for the few tests that one cannot go along with.
#ifndef SORVANE_TESTS_SUPPORT_EMULATION_H
#define SORVANE_TESTS_SUPPORT_EMULATION_H

#ifdef SORVANE_TESTS_EMULATED
constexpr bool emulated = true;
#else
constexpr bool emulated = false;
#endif

#endif
