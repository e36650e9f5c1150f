// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Makes the moment wide in which a thread has, or is about to have, an action installed.
//
// The operating system's sigaction is called through one that this program defines, by everybody.
#ifndef SORVANE_TESTS_DISTURBED_STRETCHED_SIGACTION_H
#define SORVANE_TESTS_DISTURBED_STRETCHED_SIGACTION_H

#include <functional>

/// While one of these lives, a thread that installs an action for a signal does something else just
/// before it, or just after it. What that is must be allowed in a signal handler, may not wait for
/// another thread without a limit, and is not disturbed itself.
class StretchedSigaction {
public:
    enum class When { before, after };

    /// For the thread that makes it, which also ends it.
    StretchedSigaction(int signalNumber, When when, std::function<void()> act);
    StretchedSigaction(const StretchedSigaction&) = delete;
    StretchedSigaction& operator=(const StretchedSigaction&) = delete;
    ~StretchedSigaction();

    bool meantQ(int signalNumber, When when) const {
        return signalNumber == m_signalNumber && when == m_when;
    }
    void act() const { m_act(); }

private:
    const int m_signalNumber;
    const When m_when;
    const std::function<void()> m_act;
};

#endif
