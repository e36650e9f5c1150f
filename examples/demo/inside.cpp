// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "inside.h"

#include <csignal>
#include <ctime>

#include "report.h"

namespace demo {

Sent startTimer(int signalNumber, int value) {
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = signalNumber;
    event.sigev_value.sival_int = value;
    timer_t timer = {};
    require(timer_create(CLOCK_MONOTONIC, &event, &timer) == 0, "there is no timer");
    itimerspec once = {};
    once.it_value.tv_nsec = 1;
    require(timer_settime(timer, 0, &once, nullptr) == 0, "the timer could not be started");
    return Sent{signalNumber, SI_TIMER, 0, value, nullptr};
}

Sent writeToPage(char* page, char letter) {
    volatile char* const target = page;
    *target = letter;
    return Sent{SIGSEGV, SEGV_ACCERR, 0, 0, page};
}

}  // namespace demo
