// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The manager's only traffic with the operating system's signal table.

#include <cerrno>
#include <csignal>

#include "../registry/svownership.h"
#include "svkernelaction.h"
#include "svownaction.h"
#include "svsharedstate.h"
#include "svsignalhandlermanager.h"
#include "svsystemactions.h"

namespace Sorvane {

namespace {

constexpr unsigned int lineSigactionFailed = 346;

SVFailure failureOf(int result) noexcept {
    return result == 0
               ? SVFailure()
               : svmanagerFailure("installHandlerInSystem caught an error from sigaction.",
                                  lineSigactionFailed, svexceptionOperatingSystemCallFailed, errno);
}

// What a dispatch hides that has installed the library and not yet looked whose the signal is.
void lookBehind(int signalNumber, struct sigaction& found) noexcept {
    if (svownActionQ(found) && SVOwnership::Unsettled::anyQ(signalNumber) &&
        SVOwnership::handedBackQ(SVOwnership::count(signalNumber))) {
        found = SVOwnership::actionOfHost(signalNumber);
    }
}

// What was displaced when a signal was taken over: also what the host has installed over the
// library.
void remember(int signalNumber, struct sigaction displaced) noexcept {
    lookBehind(signalNumber, displaced);
    if (svownActionQ(displaced)) {
        SVOwnership::rememberHosts(signalNumber, SVSystemActions::meantBy(signalNumber, displaced));
    } else {
        SVOwnership::rememberDisplacement(signalNumber, displaced);
    }
}

// The C library marks what it installs with its own way back from a handler, also where the host
// had another one, or none. If the host replaces the action just between, its new one counts.
void putMarksRight(int signalNumber, const struct sigaction& action) noexcept {
    const SVKernelAction wanted = SVKernelAction::of(action);
    SVKernelAction replaced = wanted;
    if (SVKernelAction::ask(signalNumber, replaced) && wanted.otherMarksQ(replaced) &&
        SVKernelAction::install(signalNumber, wanted, &replaced) &&
        replaced.handler != wanted.handler) {
        SVKernelAction::install(signalNumber, replaced, nullptr);
    }
}

// If the host has just installed something else over the library, that counts.
SVFailure installAsItWas(int signalNumber, const struct sigaction& action) noexcept {
    struct sigaction replaced;
    return SVSystemActions::install(signalNumber, action, replaced).then([&] {
        if (!svownActionQ(replaced)) {
            struct sigaction previous;
            return SVSystemActions::install(signalNumber, replaced, previous);
        }
        putMarksRight(signalNumber, action);
        return SVFailure();
    });
}

}  // namespace

SVFailure SVSystemActions::ask(int signalNumber, struct sigaction& current) noexcept {
    return failureOf(sigaction(signalNumber, nullptr, &current));
}

SVFailure SVSystemActions::askForHosts(int signalNumber, struct sigaction& hosts) noexcept {
    const SVFailure failure = ask(signalNumber, hosts);
    if (!failure) {
        lookBehind(signalNumber, hosts);
    }
    return failure;
}

SVFailure SVSystemActions::install(int signalNumber, const struct sigaction& wanted,
                                   struct sigaction& previous) noexcept {
    return failureOf(sigaction(signalNumber, &wanted, &previous));
}

SVFailure SVSystemActions::installOwn(int signalNumber, struct sigaction& previous) noexcept {
    SVOwnAction::Place& place = SVOwnAction::placeOf(signalNumber);
    if (place.changes.load() == 0) {
        SVOwnAction::begin(signalNumber);
    }
    struct sigaction* displaced = &previous;
    unsigned int seen = 0;
    do {
        seen = place.changes.load();
        const int result = sigaction(signalNumber, &place.actions[seen % 2], displaced);
        if (result != 0) {
            return failureOf(result);
        }
        displaced = nullptr;
    } while (seen != place.changes.load());
    return SVFailure();
}

SVFailure SVSystemActions::takeOver(int signalNumber, struct sigaction& previous) noexcept {
    const SVFailure failure = installOwn(signalNumber, previous);
    if (!failure) {
        remember(signalNumber, previous);
        SVOwnership::take(signalNumber);
    }
    return failure;
}

SVFailure SVSystemActions::handBack(SVSignalHandler& record) noexcept {
    const int signalNumber = record.getSignalNumber();
    const bool librarys = SVOwnership::librarysQ(signalNumber);
    const struct sigaction action = record.getOSStruct();
    struct sigaction previous;
    // A trapped system call's handler may come in between, for this very signal.
    const SVOwnership::Unsettled unsettled(signalNumber);
    SVOwnership::beginHandBack(signalNumber, action);
    const SVFailure failure = install(signalNumber, action, previous);
    SVOwnership::endHandBack(signalNumber);
    if (failure && librarys) {
        SVOwnership::take(signalNumber);
    }
    return failure;
}

// Who knows only the library's function, and puts it back as signal() does, gives it a mask and
// flags of his own.
struct sigaction SVSystemActions::meantBy(int signalNumber,
                                          const struct sigaction& installed) noexcept {
    if (SVOwnership::librarysQ(signalNumber) &&
        svsameActionQ(installed, SVOwnAction::of(signalNumber))) {
        return SVOwnership::hostsAction(signalNumber);
    }
    struct sigaction meant = SVOwnership::stoodFor(signalNumber);
    if ((installed.sa_flags & SA_SIGINFO) == 0) {
        const auto handler = meant.sa_handler;
        meant = installed;
        meant.sa_handler = handler;
    }
    return meant;
}

SVFailure SVSystemActions::leaveToHost(int signalNumber) noexcept {
    struct sigaction current;
    const SVFailure unknown = ask(signalNumber, current);
    if (unknown) {
        return unknown;
    }
    const bool installed = svownActionQ(current);
    const struct sigaction action = installed ? meantBy(signalNumber, current) : current;
    if (!installed) {
        SVOwnership::rememberDisplacement(signalNumber, current);
    } else {
        SVOwnership::rememberHosts(signalNumber, action);
    }
    const SVOwnership::Unsettled unsettled(signalNumber);
    SVOwnership::beginHandBack(signalNumber, action);
    SVOwnership::leaveForGood(signalNumber);
    const SVFailure failure = installed ? installAsItWas(signalNumber, action) : SVFailure();
    SVOwnership::endHandBack(signalNumber);
    if (failure) {
        SVOwnership::take(signalNumber);
    }
    return failure;
}

SVFailure SVSystemActions::renewOwn(int signalNumber) noexcept {
    const struct sigaction own = SVOwnAction::of(signalNumber);
    struct sigaction current = own;
    return ask(signalNumber, current).then([&] {
        return svownActionQ(current) && !svsameActionQ(current, own)
                   ? install(signalNumber, own, current)
                   : SVFailure();
    });
}

// No disposition is asked: what was taken over when a signal was allowed is put back even if it is
// forbidden by now.
SVFailure SVSystemActions::handBackPreexisting() noexcept {
    SVFailure failure;
    svforEachSignal([&](int signalNumber) {
        svfirstRecord(svregistry.tableOf(signalNumber), [&](SVSignalHandler record) {
            if (!failure && record.preExistsQ() && record.validQ()) {
                failure = handBack(record);
            }
            return static_cast<bool>(failure);
        });
    });
    return failure;
}

SVSignalHandler SVSignalHandlerManager::installHandlerInSystem(SVSignalHandler& handler) {
    const int signalNumber = handler.getSignalNumber();
    struct sigaction previous;
    SVSystemActions::install(signalNumber, handler.getOSStruct(), previous).throwIfAny();
    return SVSignalHandler(signalNumber, previous, true, true, true);
}

void SVSignalHandlerManager::restorePreviouslyExistingHandlers() {
    svchange(lockHandle(), [] { return SVSystemActions::handBackPreexisting(); });
}

}  // namespace Sorvane
