// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/system_call_filter.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cstddef>

#include "support/emulation.h"

const char* reasonForNotFiltering() noexcept {
    if (emulated || underValgrindQ()) {
        return "system calls are not the program's own here";
    }
    return prctl(PR_GET_SECCOMP) < 0 ? "the kernel filters no system calls" : nullptr;
}

bool answerSystemCall(long number, std::initializer_list<ArgumentTest> tests,
                      std::uint32_t answer) {
    constexpr std::size_t arguments = 6;
    constexpr auto load = static_cast<std::uint16_t>(BPF_LD | BPF_W | BPF_ABS);
    constexpr auto jumpIfEqual = static_cast<std::uint16_t>(BPF_JMP | BPF_JEQ | BPF_K);
    constexpr auto end = static_cast<std::uint16_t>(BPF_RET | BPF_K);
    if (tests.size() > arguments) {
        return false;
    }
    sock_filter filter[2 * arguments + 4] = {};
    std::uint16_t length = 0;
    // Instructions between the next one and the last one, which lets the call through.
    auto rest = static_cast<std::uint8_t>(2 * tests.size() + 1);
    filter[length++] = {load, 0, 0, offsetof(seccomp_data, nr)};
    filter[length++] = {jumpIfEqual, 0, rest, static_cast<std::uint32_t>(number)};
    for (const ArgumentTest& test : tests) {
        const auto place = offsetof(seccomp_data, args) + sizeof(std::uint64_t) * test.index;
        rest = static_cast<std::uint8_t>(rest - 2);
        filter[length++] = {load, 0, 0, static_cast<std::uint32_t>(place)};
        filter[length++] = {jumpIfEqual, test.equal ? std::uint8_t{0} : rest,
                            test.equal ? rest : std::uint8_t{0}, test.value};
    }
    filter[length++] = {end, 0, 0, answer};
    filter[length++] = {end, 0, 0, SECCOMP_RET_ALLOW};
    sock_fprog program = {};
    program.len = length;
    program.filter = filter;
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

bool refuseSystemCall(long number, std::initializer_list<ArgumentTest> tests, int error) {
    return answerSystemCall(number, tests, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error));
}

bool refuseInstallation(int signalNumber, int error) {
    return refuseSystemCall(SYS_rt_sigaction,
                            {{0, true, static_cast<std::uint32_t>(signalNumber)}, {1, false, 0}},
                            error);
}
