// The manager's only traffic with the operating system's signal table.

#include <cerrno>
#include <csignal>

#include "../registry/svownership.h"
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

}  // namespace

SVFailure SVSystemActions::ask(int signalNumber, struct sigaction& current) noexcept {
    return failureOf(sigaction(signalNumber, nullptr, &current));
}

SVFailure SVSystemActions::install(int signalNumber, const struct sigaction& wanted,
                                   struct sigaction& previous) noexcept {
    return failureOf(sigaction(signalNumber, &wanted, &previous));
}

SVFailure SVSystemActions::takeOver(int signalNumber, struct sigaction& previous) noexcept {
    const SVFailure failure = install(signalNumber, svownAction, previous);
    if (!failure) {
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

// That of theSVHandler(), known before anything runs.
constinit const struct sigaction svownAction = []() noexcept {
    struct sigaction action = {};
    action.sa_sigaction = &actualSignalHandler;
    action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
    return action;
}();

bool svownActionQ(const struct sigaction& action) noexcept {
    return action.sa_sigaction == &actualSignalHandler;
}

bool svnobodysActionQ(const struct sigaction& action) noexcept {
    return svownActionQ(action) || action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN;
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
