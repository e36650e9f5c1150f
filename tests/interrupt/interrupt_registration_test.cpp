// A signal at every instruction of registering, replacing and clearing.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include "interrupt/counted_handlers.h"
#include "interrupt/stepper.h"

namespace {

using Manager = Sorvane::SVSignalHandlerManager;
using Record = Sorvane::SVSignalHandler;
using RecordList = Sorvane::SVSignalHandlerList;

Manager* manager;

// Handlers 0 to count - 1, before signals are handled.
void registerFirst(std::size_t count, int signalNumber = SIGUSR1) {
    for (std::size_t i = 0; i < count; ++i) {
        manager->setHandlerFromFunction(signalNumber, handlerOf[i]);
    }
}

std::function<void()> handling(std::size_t count, bool locking = true) {
    return [count, locking] {
        manager = new Manager(locking);
        registerFirst(count);
        manager->startHandlingSignals();
    };
}

void registerFifth() {
    manager->setHandlerFromFunction(SIGUSR1, handlerOf[5]);
}

TEST(InterruptedSetHandler, WithoutGrowth) {
    stepThrough(
        {.prepare = handling(2), .operate = registerFifth, .everyTime = {0, 1}, .atMostOnce = {5}});
}

TEST(InterruptedSetHandler, WithoutGrowthByAManagerThatDoesNotLock) {
    stepThrough({.prepare = handling(2, false),
                 .operate = registerFifth,
                 .everyTime = {0, 1},
                 .atMostOnce = {5}});
}

TEST(InterruptedSetHandler, InnerTableGrows) {
    stepThrough({.prepare = handling(5),
                 .operate = registerFifth,
                 .everyTime = {0, 1, 2, 3, 4},
                 .atMostOnce = {5}});
}

// What is read is copied rather than changed.
TEST(InterruptedSetHandler, InnerTableGrowsUnderADispatch) {
    stepThrough({.prepare =
                     [] {
                         handling(5)();
                         manager->setHandlerFromFunction(SIGUSR2, [](int) { registerFifth(); });
                     },
                 .operate = [] { manager->callHandlers(SIGUSR2, nullptr, nullptr); },
                 .everyTime = {0, 1, 2, 3, 4},
                 .atMostOnce = {5}});
}

// Cleared from the last to the first, so that none stands behind a deleted slot.
TEST(InterruptedSetHandler, InnerTableIsCleanedOfDeletedSlots) {
    stepThrough({.prepare =
                     [] {
                         manager = new Manager(true);
                         registerFirst(5);
                         for (std::size_t i = 4; i > 0; --i) {
                             manager->clearHandlerWithFunction(SIGUSR1, handlerOf[i]);
                         }
                         manager->startHandlingSignals();
                     },
                 .operate =
                     [] {
                         registerFifth();
                         manager->setHandlerFromFunction(SIGUSR1, handlerOf[6]);
                     },
                 .everyTime = {0},
                 .atMostOnce = {5, 6},
                 .never = {1, 2, 3, 4}});
}

TEST(InterruptedSetHandler, SixthSignalSoThatTheOuterTableGrows) {
    stepThrough({.prepare =
                     [] {
                         manager = new Manager(true);
                         registerFirst(2);
                         for (const int other : {SIGINT, SIGQUIT, SIGHUP, SIGPIPE}) {
                             manager->setHandlerFromFunction(other, handlerOf[6]);
                         }
                         manager->startHandlingSignals();
                     },
                 .operate = [] { manager->setHandlerFromFunction(SIGUSR2, handlerOf[5]); },
                 .everyTime = {0, 1},
                 .never = {5, 6}});
}

TEST(InterruptedSetHandler, FirstRecordOfTheSignal) {
    stepThrough({.prepare =
                     [] {
                         manager = new Manager(true);
                         manager->startHandlingSignals();
                         manager->handleSignal(SIGUSR1);
                     },
                 .operate = registerFifth,
                 .atMostOnce = {5}});
}

TEST(InterruptedSetHandler, ReplacesARecord) {
    stepThrough({.prepare = handling(3),
                 .operate = [] { manager->setHandlerFromFunction(SIGUSR1, handlerOf[1]); },
                 .everyTime = {0, 1, 2}});
}

TEST(InterruptedSetHandler, FromTheRecordOfTheOperatingSystem) {
    stepThrough({.prepare = handling(2),
                 .operate =
                     [] {
                         struct sigaction action = {};
                         action.sa_sigaction = countedInformation;
                         action.sa_flags = SA_SIGINFO;
                         manager->setHandlerFromOSStruct(SIGUSR1, action);
                     },
                 .everyTime = {0, 1},
                 .atMostOnce = {informationNumber}});
}

// The old form counts for a fatal signal as the host's own but is not valid; the new one is valid
// and not the host's. Neither is called; a record that is half of each would be.
void replaceBy(const Record& before, const Record& after) {
    stepThrough({.signalNumber = SIGSEGV,
                 .prepare =
                     [before] {
                         std::signal(SIGSEGV, handlerOf[0]);
                         manager = new Manager(true);
                         Record record(before);
                         manager->setHandler(record);
                         manager->startHandlingSignals();
                     },
                 .operate =
                     [after] {
                         Record record(after);
                         manager->setHandler(record);
                     },
                 .everyTime = {0},
                 .never = {1, informationNumber}});
}

// The same function in the one form or in the other.
Record recordOfForm(int flags, bool hostsOwn, bool valid) {
    struct sigaction action = {};
    action.sa_sigaction = countedInformation;
    action.sa_flags = flags;
    return Record(SIGSEGV, action, hostsOwn, hostsOwn, valid);
}

TEST(InterruptedSetHandler, ReplacesAnInvalidHostsRecordByAUsersOfTheOtherForm) {
    replaceBy(recordOfForm(SA_RESTART, true, false), recordOfForm(SA_SIGINFO, false, true));
}

TEST(InterruptedSetHandler, ReplacesAUsersRecordByAnInvalidHostsOfTheOtherForm) {
    replaceBy(recordOfForm(SA_SIGINFO, false, true), recordOfForm(SA_RESTART, true, false));
}

// With the record replaced by an equal one a fatal signal always finds the host's own.
TEST(InterruptedSetHandler, ReplacesTheHostsRecordOfAFatalSignal) {
    stepThrough({.signalNumber = SIGSEGV,
                 .prepare =
                     [] {
                         std::signal(SIGSEGV, handlerOf[0]);
                         manager = new Manager(true);
                         manager->setHandlerFromFunction(SIGSEGV, handlerOf[1]);
                         manager->startHandlingSignals();
                     },
                 .operate =
                     [] {
                         Record record(SIGSEGV, handlerOf[0], true, true, true);
                         manager->setHandler(record);
                     },
                 .everyTime = {0},
                 .never = {1}});
}

TEST(InterruptedSetHandler, TableOfAFatalSignalGrows) {
    stepThrough({.signalNumber = SIGHUP,
                 .prepare =
                     [] {
                         std::signal(SIGHUP, handlerOf[7]);
                         manager = new Manager(true);
                         registerFirst(4, SIGHUP);
                         manager->startHandlingSignals();
                     },
                 .operate = [] { manager->setHandlerFromFunction(SIGHUP, handlerOf[5]); },
                 .everyTime = {7},
                 .never = {0, 1, 2, 3, 5}});
}

TEST(InterruptedSetHandlers, ThatFillTheTable) {
    stepThrough({.prepare = handling(2),
                 .operate =
                     [] {
                         RecordList list;
                         for (std::size_t i = 3; i < 7; ++i) {
                             list.push_back(Record(SIGUSR1, handlerOf[i], false, false, true));
                         }
                         manager->setHandlers(list);
                     },
                 .everyTime = {0, 1},
                 .atMostOnce = {3, 4, 5, 6}});
}

TEST(InterruptedClearHandler, OneOfThree) {
    stepThrough({.prepare = handling(3),
                 .operate = [] { manager->clearHandlerWithFunction(SIGUSR1, handlerOf[2]); },
                 .everyTime = {0, 1},
                 .atMostOnce = {2}});
}

TEST(InterruptedClearHandler, OneOfAnotherSignal) {
    stepThrough({.prepare =
                     [] {
                         manager = new Manager(true);
                         registerFirst(3);
                         manager->setHandlerFromFunction(SIGUSR2, handlerOf[6]);
                         manager->startHandlingSignals();
                     },
                 .operate = [] { manager->clearHandlerWithFunction(SIGUSR2, handlerOf[6]); },
                 .everyTime = {0, 1, 2},
                 .never = {6}});
}

TEST(InterruptedClearHandler, ThatIsNotThere) {
    stepThrough({.prepare = handling(3),
                 .operate = [] { manager->clearHandlerWithFunction(SIGUSR1, handlerOf[5]); },
                 .everyTime = {0, 1, 2},
                 .never = {5}});
}

// The signal goes back to the handler first, and so reaches it before and after.
void clearLastPreexisting(int signalNumber) {
    stepThrough({.signalNumber = signalNumber,
                 .prepare =
                     [signalNumber] {
                         std::signal(signalNumber, handlerOf[7]);
                         manager = new Manager(true);
                         manager->handleSignal(signalNumber);
                     },
                 .operate =
                     [signalNumber] {
                         Record record(signalNumber, handlerOf[7], true, true, true);
                         manager->clearHandler(record);
                     },
                 .everyTime = {7}});
}

TEST(InterruptedClearHandler, LastPreexistingOne) {
    clearLastPreexisting(SIGUSR1);
}

TEST(InterruptedClearHandler, LastPreexistingOneOfAFatalSignal) {
    clearLastPreexisting(SIGSEGV);
}

TEST(InterruptedClearHandlers, AllButOne) {
    stepThrough({.prepare = handling(4),
                 .operate =
                     [] {
                         RecordList list;
                         for (std::size_t i = 3; i > 0; --i) {
                             list.push_back(Record(SIGUSR1, handlerOf[i], false, false, true));
                         }
                         manager->clearHandlers(list);
                     },
                 .everyTime = {0},
                 .atMostOnce = {1, 2, 3}});
}

}  // namespace
