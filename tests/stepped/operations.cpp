// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "stepped/operations.h"

#include <algorithm>
#include <csignal>
#include <ostream>

#include "support/shared_state.h"
#include "support/system_actions.h"

namespace {

Setting setting;
Manager* manager;

// --- What goes before

void makeManager() {
    manager = new Manager(setting.locking);
}

void hostHasAHandler() {
    hostInstalls(setting.signalNumber, observed[host]);
}

void registerFor(int signalNumber, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        manager->setHandlerFromFunction(signalNumber, observed[i]);
    }
}

// Handlers 0 and so on are registered, with those of other signals, with and without a host's.
void prepareRegistered(std::size_t count) {
    hostHasAHandler();
    hostInstalls(SIGQUIT, hostHandler);
    makeManager();
    registerFor(setting.signalNumber, count);
    manager->setHandlerFromFunction(SIGINT, userHandler);
    manager->setHandlerFromFunction(SIGQUIT, userHandler);
}

template <std::size_t count>
void prepareRegistered() {
    prepareRegistered(count);
}

template <std::size_t count>
void prepareHandling() {
    prepareRegistered(count);
    manager->startHandlingSignals();
}

void prepareHandlingWithoutAHost() {
    makeManager();
    registerFor(setting.signalNumber, 2);
    manager->startHandlingSignals();
}

// The host's record alone, so that whoever clears it hands the signal back.
void prepareLastPreexisting() {
    hostHasAHandler();
    makeManager();
    manager->handleSignal(setting.signalNumber);
}

// Cleared from the last to the first, so that none stands behind a deleted slot.
void prepareDeletedSlots() {
    hostHasAHandler();
    makeManager();
    manager->handleSignal(setting.signalNumber);
    registerFor(setting.signalNumber, 4);
    for (std::size_t i = 3; i > 0; --i) {
        manager->clearHandlerWithFunction(setting.signalNumber, observed[i]);
    }
    manager->startHandlingSignals();
}

// The same function in another form: half of the one and half of the other is called with what it
// does not expect, or is taken for a valid handler of the host's.
Record invalidOfHost() {
    struct sigaction action = {};
    action.sa_sigaction = observed[1];
    return Record(setting.signalNumber, action, true, true, false);
}

void registerInvalidOfHost() {
    Record record = invalidOfHost();
    manager->setHandler(record);
}

void prepareInvalidOfHost() {
    prepareHandling<2>();
    registerInvalidOfHost();
}

void prepareFiveSignals() {
    prepareHandling<2>();
    manager->setHandlerFromFunction(SIGPIPE, userHandler);
    manager->setHandlerFromFunction(SIGALRM, userHandler);
}

// Tables and the signal stay when the last manager goes while signals are not being handled.
void prepareLeftTables() {
    prepareHandling<2>();
    manager->stopHandlingSignals();
    manager->handleSignal(setting.signalNumber);
    delete manager;
}

void prepareTornDown() {
    prepareHandlingWithoutAHost();
    delete manager;
}

void prepareNotHandling() {
    prepareHandling<2>();
    manager->stopHandlingSignals();
    manager->handleSignal(setting.signalNumber);
}

// --- The operations

template <std::size_t number>
void registerOne() {
    manager->setHandlerFromFunction(setting.signalNumber, observed[number]);
}

void registerForSixthSignal() {
    manager->setHandlerFromFunction(SIGTERM, userHandler);
}

void clearOne() {
    manager->clearHandlerWithFunction(setting.signalNumber, observed[1]);
}

void clearLastPreexisting() {
    Record record(setting.signalNumber, observed[host], true, true, true);
    manager->clearHandler(record);
}

void takeOver() {
    manager->handleSignal(setting.signalNumber);
}

void start() {
    manager->startHandlingSignals();
}

void stopOne() {
    manager->stopHandlingSignal(setting.signalNumber);
}

void stop() {
    manager->stopHandlingSignals();
}

void restore() {
    manager->restorePreviouslyExistingHandlers();
}

void makeAndDestroyFurther() {
    const Manager further(setting.locking);
}

void destroy() {
    delete manager;
}

void callHandlersOfAnotherSignal() {
    manager->callHandlers(SIGINT, nullptr, nullptr);
}

void askForTheHosts() {
    manager->hasPreexistingOrExternalHandlerQ(setting.signalNumber);
}

const Called hostAlone = {host};
const Called withTwo = {host, 0, 1};

}  // namespace

void useSetting(const Setting& given) {
    setting = given;
}

const std::vector<Operation>& operations() {
    static const std::vector<Operation> all = {
        {"RegistersANewRecord", prepareHandling<2>, registerOne<2>, {withTwo, {host, 0, 1, 2}}},
        {"ReplacesARecordByItsEqual", prepareHandling<2>, registerOne<1>, {withTwo}},
        {"ReplacesAUsersRecordByAnInvalidOneOfTheHosts",
         prepareHandling<2>,
         registerInvalidOfHost,
         {withTwo, {host, 0}}},
        {"ReplacesAnInvalidRecordOfTheHostsByAUsers",
         prepareInvalidOfHost,
         registerOne<1>,
         {{host, 0}, withTwo}},
        {"RegistersSoThatTheTableGrows",
         prepareHandling<4>,
         registerOne<4>,
         {{host, 0, 1, 2, 3}, {host, 0, 1, 2, 3, 4}}},
        {"RegistersSoThatDeletedSlotsGo",
         prepareDeletedSlots,
         registerOne<5>,
         {{host, 0}, {host, 0, 5}}},
        {"RegistersForASixthSignal", prepareFiveSignals, registerForSixthSignal, {withTwo}},
        {"ClearsARecord", prepareHandling<2>, clearOne, {withTwo, {host, 0}}},
        {"ClearsTheLastPreexistingRecord",
         prepareLastPreexisting,
         clearLastPreexisting,
         {hostAlone}},
        {"TakesASignalOver", prepareRegistered<2>, takeOver, {hostAlone, withTwo}},
        {"TakesASignalOverThatHasNoTable", prepareRegistered<0>, takeOver, {hostAlone}},
        {"Starts", prepareRegistered<2>, start, {hostAlone, withTwo}},
        {"HandsASignalBack", prepareHandling<2>, stopOne, {withTwo, hostAlone}},
        {"HandsASignalBackThatNobodyHad", prepareHandlingWithoutAHost, stopOne, {{0, 1}, {}}},
        {"Stops", prepareHandling<2>, stop, {withTwo, hostAlone}},
        {"RestoresTheHosts", prepareHandling<2>, restore, {withTwo, hostAlone}},
        {"MakesTheFirstManagerThatFindsTables", prepareLeftTables, makeManager, {withTwo}},
        {"MakesTheFirstManagerAndTables", prepareTornDown, makeManager, {{}}},
        {"MakesAndDestroysAFurtherManager", prepareHandling<2>, makeAndDestroyFurther, {withTwo}},
        {"DestroysTheLastManager",
         prepareHandling<2>,
         destroy,
         {withTwo, hostAlone},
         Detail::records},
        {"DestroysTheLastManagerThatDoesNotHandle",
         prepareNotHandling,
         destroy,
         {withTwo},
         Detail::records},
        {"CallsHandlersOfAnotherSignal",
         prepareHandling<2>,
         callHandlersOfAnotherSignal,
         {withTwo}},
        {"AsksForTheHosts", prepareHandling<2>, askForTheHosts, {withTwo}},
    };
    return all;
}

const Operation& operationNamed(const std::string& name) {
    return *std::find_if(operations().begin(), operations().end(),
                         [&](const Operation& operation) { return operation.name == name; });
}

std::ostream& operator<<(std::ostream& stream, const Operation& operation) {
    return stream << operation.name;
}
