// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "disturbed/other_dispatch.h"

#include <pthread.h>

#include <csignal>
#include <utility>

#include "disturbed/limited_child.h"
#include "disturbed/waiting.h"

namespace {

constinit std::atomic<bool> standsStill{false};
constinit std::atomic<bool> goesOn{false};
constinit std::atomic<unsigned int> calls{0};
constinit thread_local bool isOther = false;

}  // namespace

void await(const std::atomic<bool>& moment) {
    waitUpTo(childPatience, [&moment] { return moment.load(); });
}

void OtherDispatch::hostsHandler(int, siginfo*, void*) {
    if (isOther) {
        standsStill = true;
        await(goesOn);
    } else {
        ++calls;
    }
}

unsigned int OtherDispatch::received() {
    return calls;
}

OtherDispatch::OtherDispatch(int signalNumber, StretchedSigaction::When when,
                             std::function<void(unsigned int)> act)
    : m_thread([this, signalNumber, when, act = std::move(act)] {
          isOther = true;
          unsigned int installations = 0;
          const StretchedSigaction stretched(signalNumber, when, [&] { act(++installations); });
          raise(signalNumber);
          m_done = true;
      }) {
    await(standsStill);
}

void OtherDispatch::letGo() {
    goesOn = true;
}

void OtherDispatch::join() {
    letGo();
    m_thread.join();
}

OtherDispatchAtItsInstallation::OtherDispatchAtItsInstallation(int signalNumber,
                                                               StretchedSigaction::When when)
    : m_dispatch(signalNumber, when, [this](unsigned int installations) {
          if (installations == 1) {
              m_there = true;
              await(m_over);
          }
      }) {}

void OtherDispatchAtItsInstallation::letCome() const {
    OtherDispatch::letGo();
    await(m_there);
}

void OtherDispatchAtItsInstallation::join() {
    letGoOn();
    m_dispatch.join();
}
