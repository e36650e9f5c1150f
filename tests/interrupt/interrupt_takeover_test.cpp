// A signal at every instruction of taking signals over and handing them back.
//
// The host's handler, number 7 or the three-argument one, must be reached by every signal: before,
// directly, and from the take-over on by way of the component.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/mman.h>

#include <atomic>

#include "interrupt/counted_handlers.h"
#include "interrupt/stepper.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;

Manager* manager;

constexpr std::size_t host = 7;
constexpr std::size_t pageSize = 4096;

void hostInstallsInformation(int signalNumber) {
    struct sigaction action = {};
    action.sa_sigaction = countedInformation;
    action.sa_flags = SA_SIGINFO;
    sigaction(signalNumber, &action, nullptr);
}

void makeManagerWithRecords(int signalNumber) {
    manager = new Manager(true);
    manager->setHandlerFromFunction(signalNumber, handlerOf[0]);
    manager->setHandlerFromFunction(signalNumber, handlerOf[1]);
}

void takeOverUser1() {
    manager->handleSignal(SIGUSR1);
}

TEST(InterruptedHandleSignal, WithAHostsOneArgumentHandler) {
    stepThrough({.prepare =
                     [] {
                         std::signal(SIGUSR1, handlerOf[host]);
                         makeManagerWithRecords(SIGUSR1);
                     },
                 .operate = takeOverUser1,
                 .everyTime = {host},
                 .atMostOnce = {0, 1},
                 .alike = {0, 1},
                 .mayBeSentAgain = true});
}

TEST(InterruptedHandleSignal, WithAHostsThreeArgumentHandlerThatGetsTheValue) {
    stepThrough({.prepare =
                     [] {
                         hostInstallsInformation(SIGUSR1);
                         makeManagerWithRecords(SIGUSR1);
                     },
                 .operate = takeOverUser1,
                 .everyTime = {informationNumber},
                 .atMostOnce = {0, 1},
                 .alike = {0, 1},
                 .mayBeSentAgain = true});
}

TEST(InterruptedHandleSignal, OfARealTimeSignal) {
    const int signalNumber = SIGRTMIN + 3;
    stepThrough({.signalNumber = signalNumber,
                 .prepare =
                     [signalNumber] {
                         hostInstallsInformation(signalNumber);
                         makeManagerWithRecords(signalNumber);
                     },
                 .operate = [signalNumber] { manager->handleSignal(signalNumber); },
                 .everyTime = {informationNumber},
                 .atMostOnce = {0, 1},
                 .alike = {0, 1},
                 .mayBeSentAgain = true});
}

TEST(InterruptedHandleSignal, ThatHasNoTableYet) {
    stepThrough({.prepare =
                     [] {
                         std::signal(SIGUSR1, handlerOf[host]);
                         manager = new Manager(true);
                     },
                 .operate = takeOverUser1,
                 .everyTime = {host},
                 .mayBeSentAgain = true});
}

TEST(InterruptedHandleSignal, ASecondTime) {
    stepThrough({.prepare =
                     [] {
                         std::signal(SIGUSR1, handlerOf[host]);
                         makeManagerWithRecords(SIGUSR1);
                         manager->handleSignal(SIGUSR1);
                     },
                 .operate = takeOverUser1,
                 .everyTime = {host, 0, 1},
                 .mayBeSentAgain = true});
}

// Ends the process if a dispatch does not find the host's record.
void takeOverFatal(int signalNumber) {
    stepThrough({.signalNumber = signalNumber,
                 .prepare =
                     [signalNumber] {
                         std::signal(signalNumber, handlerOf[host]);
                         makeManagerWithRecords(signalNumber);
                     },
                 .operate = [signalNumber] { manager->handleSignal(signalNumber); },
                 .everyTime = {host},
                 .never = {0, 1},
                 .mayBeSentAgain = true});
}

TEST(InterruptedHandleSignal, SegmentationFaultOfAHost) {
    takeOverFatal(SIGSEGV);
}

TEST(InterruptedHandleSignal, BusErrorOfAHost) {
    takeOverFatal(SIGBUS);
}

TEST(InterruptedHandleSignal, HangupOfAHost) {
    takeOverFatal(SIGHUP);
}

// --- A fault in a handler that interrupted the take-over of that fault ----------------------

char* faultyPage;
std::atomic<unsigned int> faults;

void repairPage(int) {
    ++faults;
    mprotect(faultyPage, pageSize, PROT_READ | PROT_WRITE);
}

void touchFaultyPage(int) {
    mprotect(faultyPage, pageSize, PROT_NONE);
    *static_cast<volatile char*>(faultyPage) = 1;
}

// The fault does not come again and again, for what it waits for is below it. It reaches the host's
// handler, or, in the few instructions at which nobody knows of that, ends the process by the rule.
TEST(InterruptedHandleSignal, ByAHandlerThatFaultsItself) {
    stepThrough({.prepare =
                     [] {
                         void* const page = mmap(nullptr, pageSize, PROT_READ | PROT_WRITE,
                                                 MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                         faultyPage = static_cast<char*>(page);
                         std::signal(SIGSEGV, repairPage);
                         manager = new Manager(true);
                         manager->setHandlerFromFunction(SIGUSR1, touchFaultyPage);
                         manager->handleSignal(SIGUSR1);
                         manager->setHandlerFromFunction(SIGSEGV, handlerOf[0]);
                     },
                 .operate = [] { manager->handleSignal(SIGSEGV); },
                 .never = {0},
                 .mayEndFatally = true,
                 .also = [] { return faults == deliveries(); }});
}

void prepareStart() {
    std::signal(SIGUSR1, handlerOf[host]);
    std::signal(SIGSEGV, handlerOf[8]);
    makeManagerWithRecords(SIGUSR1);
    manager->setHandlerFromFunction(SIGSEGV, handlerOf[2]);
    manager->setHandlerFromFunction(SIGUSR2, handlerOf[2]);
}

TEST(InterruptedStartHandlingSignals, WithAHostsHandler) {
    stepThrough({.prepare = prepareStart,
                 .operate = [] { manager->startHandlingSignals(); },
                 .everyTime = {host},
                 .atMostOnce = {0, 1},
                 .never = {2, 8},
                 .alike = {0, 1},
                 .mayBeSentAgain = true});
}

TEST(InterruptedStartHandlingSignals, BySegmentationFaultOfAHost) {
    stepThrough({.signalNumber = SIGSEGV,
                 .prepare = prepareStart,
                 .operate = [] { manager->startHandlingSignals(); },
                 .everyTime = {8},
                 .never = {0, 1, 2, host},
                 .mayBeSentAgain = true});
}

void prepareStop() {
    prepareStart();
    manager->startHandlingSignals();
}

TEST(InterruptedStopHandlingSignal, WithAHostsHandler) {
    stepThrough({.prepare = prepareStop,
                 .operate = [] { manager->stopHandlingSignal(SIGUSR1); },
                 .everyTime = {host},
                 .atMostOnce = {0, 1},
                 .never = {2, 8},
                 .alike = {0, 1}});
}

TEST(InterruptedStopHandlingSignal, WithoutAHostsHandler) {
    stepThrough({.signalNumber = SIGUSR2,
                 .prepare = prepareStop,
                 .operate = [] { manager->stopHandlingSignal(SIGUSR2); },
                 .atMostOnce = {2},
                 .never = {0, 1, host, 8}});
}

TEST(InterruptedStopHandlingSignals, WithAHostsHandler) {
    stepThrough({.prepare = prepareStop,
                 .operate = [] { manager->stopHandlingSignals(); },
                 .everyTime = {host},
                 .atMostOnce = {0, 1},
                 .never = {2, 8},
                 .alike = {0, 1}});
}

TEST(InterruptedStopHandlingSignals, BySegmentationFaultOfAHost) {
    stepThrough({.signalNumber = SIGSEGV,
                 .prepare = prepareStop,
                 .operate = [] { manager->stopHandlingSignals(); },
                 .everyTime = {8},
                 .never = {0, 1, 2, host}});
}

TEST(InterruptedRestore, PreviouslyExistingHandlers) {
    stepThrough({.prepare = prepareStop,
                 .operate = [] { manager->restorePreviouslyExistingHandlers(); },
                 .everyTime = {host},
                 .atMostOnce = {0, 1},
                 .never = {2, 8},
                 .alike = {0, 1}});
}

}  // namespace
