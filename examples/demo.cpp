// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The library's main job on real signals, from the first registration to the last manager's end.
//
// The program checks every step and ends with a status other than 0, and one line that says why,
// at the first that is not as it must be.

#include <sorvane/svsignalhandlermanager.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "demo/calls.h"
#include "demo/fatal.h"
#include "demo/handlers.h"
#include "demo/inside.h"
#include "demo/outside.h"
#include "demo/process.h"
#include "demo/report.h"
#include "demo/signals.h"

namespace demo {

namespace {

using Sorvane::SVSignalHandler;
using Sorvane::SVSignalHandlerList;
using Sorvane::SVSignalHandlerManager;

constexpr int storySeconds = 40;

std::string versionText() {
    return std::to_string(SORVANE_SIGNALS_VERSION_MAJOR) + "." +
           std::to_string(SORVANE_SIGNALS_VERSION_MINOR) + "." +
           std::to_string(SORVANE_SIGNALS_VERSION_PATCH);
}

std::vector<int> signalsOfHost() {
    return {SIGUSR1, SIGTERM, SIGSEGV};
}

std::vector<int> signalsOfUsersOnly() {
    return {SIGUSR2, SIGALRM, realTimeSignal()};
}

// --- The three parties ---------------------------------------------------------------------------

bool takenOver(const std::vector<int>& signalNumbers) {
    return installed(signalNumbers, address(&actualSignalHandler));
}

void install(int signalNumber, const struct sigaction& action) {
    require(sigaction(signalNumber, &action, nullptr) == 0,
            "the host could not install its handler for " + nameOf(signalNumber));
}

void installHandlersOfHost() {
    struct sigaction oneArgument = {};
    oneArgument.sa_handler = host::onUsr1;
    sigaddset(&oneArgument.sa_mask, SIGUSR2);
    install(SIGUSR1, oneArgument);

    struct sigaction threeArguments = {};
    threeArguments.sa_flags = SA_SIGINFO | SA_RESTART;
    threeArguments.sa_sigaction = host::onTerm;
    install(SIGTERM, threeArguments);

    threeArguments.sa_sigaction = host::repairPage;
    install(SIGSEGV, threeArguments);
}

void registerJournal(SVSignalHandlerManager& manager) {
    manager.setHandlerFromFunction(SIGUSR1, journal::onUsr1);
    manager.setHandlerFromFunction(SIGTERM, journal::onTerm);
    manager.setHandlerFromFunction(SIGSEGV, journal::onFatal);

    struct sigaction action = {};
    action.sa_sigaction = journal::onUsr2;
    action.sa_flags = SA_SIGINFO;
    manager.setHandlerFromOSStruct(SIGUSR2, action);
}

// Neither pre-existing nor external, and valid: what the registrations by function make as well.
template <typename Function>
SVSignalHandler recordOf(int signalNumber, Function function) {
    return SVSignalHandler(signalNumber, function, false, false, true);
}

bool hostsHandlerKept(SVSignalHandlerManager& manager, const std::vector<int>& signalNumbers) {
    return std::all_of(signalNumbers.begin(), signalNumbers.end(), [&manager](int signalNumber) {
        return manager.hasPreexistingOrExternalHandlerQ(signalNumber);
    });
}

SVSignalHandlerList batchOfMonitor() {
    SVSignalHandlerList batch;
    batch.push_back(recordOf(SIGALRM, monitor::onTimer));
    batch.push_back(recordOf(realTimeSignal(), monitor::onRealTime));
    return batch;
}

void registerMonitor(SVSignalHandlerManager& manager) {
    manager.setHandlerFromFunction(SIGTERM, monitor::onTerm);

    SVSignalHandler record = recordOf(SIGUSR2, monitor::onUsr2);
    manager.setHandler(record);

    SVSignalHandlerList batch = batchOfMonitor();
    manager.setHandlers(batch);
}

// --- The dump ------------------------------------------------------------------------------------

unsigned int countOf(const std::string& part, const std::string& text) {
    unsigned int count = 0;
    for (auto i = text.find(part); i != std::string::npos; i = text.find(part, i + 1)) {
        ++count;
    }
    return count;
}

unsigned int tablesIn(const std::string& dump) {
    return countOf("<SVHashTable>", dump);
}

unsigned int recordsIn(const std::string& dump) {
    return countOf("<SVSignalHandler>", dump);
}

std::string upToFirstTable(const std::string& dump) {
    const std::string end = "</SVHashTable>";
    return dump.substr(0, dump.find(end) + end.size());
}

std::string dumpOf(const SVSignalHandlerManager& manager) {
    std::ostringstream stream;
    stream << manager;
    return stream.str();
}

// --- The story -----------------------------------------------------------------------------------

class Story {
public:
    explicit Story(bool wholeDump) : m_wholeDump(wholeDump) {}

    void tell();

private:
    void hostComesFirst();
    void usersRegister();
    void managerStarts();
    void signalsArrive();
    void dumpIsWritten();
    void userRegistersWhileHandling();
    void usersClear();
    void oneSignalIsHandedBack();
    void everySignalIsHandedBack();
    void managerStartsAgain();
    void managersGo();
    void fatalSignalsArrive();

    const bool m_wholeDump;
    Outside m_outside;
    char* const m_page = host::makeGuardedPage();
    std::optional<Actions> m_hostsActions;
    std::unique_ptr<SVSignalHandlerManager> m_journal;
    std::unique_ptr<SVSignalHandlerManager> m_monitor;
};

void Story::tell() {
    say("Sorvane signals " + versionText() + " on real signals");
    say("");
    say("Three parties in one process know nothing of one another: the host, and two users of");
    say("the library, the journal and the monitor. Every step is checked; the first that is not");
    say("as it must be ends the program.");
    say("");
    say("process " + std::to_string(getpid()) + "   this one");
    say("process " + std::to_string(m_outside.process()) +
        "   another one, which sends it signals");

    hostComesFirst();
    usersRegister();
    managerStarts();
    signalsArrive();
    dumpIsWritten();
    userRegistersWhileHandling();
    usersClear();
    oneSignalIsHandedBack();
    everySignalIsHandedBack();
    managerStartsAgain();
    managersGo();
    fatalSignalsArrive();

    m_outside.leave();
    say("");
    say("All of it was as it must be.");
}

void Story::hostComesFirst() {
    section("The host has handlers of its own");
    installHandlersOfHost();
    m_hostsActions.emplace();
    say("SIGUSR1      host::onUsr1           one argument");
    say("SIGTERM      host::onTerm           three arguments");
    say("SIGSEGV      host::repairPage       three; makes a forbidden page writable and returns");
    say("");
    confirm(installed({SIGUSR1}, address(&host::onUsr1)) &&
                installed({SIGTERM}, address(&host::onTerm)) &&
                installed({SIGSEGV}, address(&host::repairPage)),
            "they are installed");
    confirm(installed(signalsOfUsersOnly(), address(SIG_DFL)),
            namesOf(signalsOfUsersOnly()) + " have their default action");
}

void Story::usersRegister() {
    section("The users make a manager each and register handlers");
    m_journal = std::make_unique<SVSignalHandlerManager>(true);
    registerJournal(*m_journal);
    say("SIGUSR1      journal::onUsr1        by function, one argument");
    say("SIGTERM      journal::onTerm        by function, three arguments");
    say("SIGSEGV      journal::onFatal       by function, three arguments");
    say("SIGUSR2      journal::onUsr2        by sigaction record");

    m_monitor = std::make_unique<SVSignalHandlerManager>(true);
    registerMonitor(*m_monitor);
    say("SIGTERM      monitor::onTerm        by function, one argument");
    say("SIGUSR2      monitor::onUsr2        by handler record");
    say("SIGALRM      monitor::onTimer       in a list");
    say("SIGRTMIN+3   monitor::onRealTime    in a list");
    say("");
    confirm(SVSignalHandlerManager::numberOfManagers == 2, "2 managers share one registry");
    confirm(m_hostsActions->unchanged(), "nothing is installed yet");
}

void Story::managerStarts() {
    section("startHandlingSignals");
    m_journal->startHandlingSignals();
    confirm(SVSignalHandlerManager::currentlyHandlingSignals, "signals are being handled");
    confirm(takenOver(signalsOfHost()) && takenOver(signalsOfUsersOnly()),
            "taken over: " + namesOf(signalsOfHost()) + ", " + namesOf(signalsOfUsersOnly()));
    confirm(hostsHandlerKept(*m_journal, signalsOfHost()),
            "the host's 3 handlers are kept in the registry, marked as pre-existing");
}

void Story::signalsArrive() {
    section("Signals arrive: from the other process, from a timer, from a memory fault");
    sayCallHeadings();
    expectCalls({m_outside.kill(SIGUSR1)}, {"host::onUsr1", "journal::onUsr1"});
    expectCalls({m_outside.kill(SIGTERM)}, {"host::onTerm", "journal::onTerm", "monitor::onTerm"});
    expectCalls({m_outside.queue(SIGUSR2, 42)}, {"journal::onUsr2", "monitor::onUsr2"});
    expectCalls({startTimer(SIGALRM, 7)}, {"monitor::onTimer"});
    expectCalls({m_outside.queue(realTimeSignal(), 1), m_outside.queue(realTimeSignal(), 2),
                 m_outside.queue(realTimeSignal(), 3)},
                {"monitor::onRealTime"});
    expectCalls({writeToPage(m_page, 'a')}, {"host::repairPage"});
    say("");
    say("Handlers of one signal are called in the order of their table's slots, and are listed");
    say("as registered. Of SIGSEGV, SIGBUS and SIGHUP the host's handlers alone are called, if it");
    say("has any: journal::onFatal was not.");
    say("");
    confirm(*m_page == 'a', "the write that faulted was made again, and is done");
}

void Story::dumpIsWritten() {
    section("The diagnostic dump, folded");
    const std::string dump = dumpOf(*m_monitor);
    const std::string shown = m_wholeDump ? dump : upToFirstTable(dump);
    sayFolded(shown);
    if (!m_wholeDump) {
        say("... and " + std::to_string(tablesIn(dump) - tablesIn(shown)) + " more tables with " +
            std::to_string(recordsIn(dump) - recordsIn(shown)) + " records, shown with --dump");
    }
    say("");
    confirm(tablesIn(dump) == 6 && recordsIn(dump) == 11,
            "it lists 6 signals, with 8 registered handlers and 3 of the host's");
}

void Story::userRegistersWhileHandling() {
    section("A registration while signals are being handled");
    confirm(m_hostsActions->unchangedFor(SIGURG), "SIGURG has its default action");
    m_monitor->setHandlerFromFunction(SIGURG, monitor::onUrgent);
    confirm(takenOver({SIGURG}), "registering monitor::onUrgent takes it over at once");
    say("");
    sayCallHeadings();
    expectCalls({m_outside.kill(SIGURG)}, {"monitor::onUrgent"});
    say("");
    confirm(takenOver({SIGURG}),
            "monitor::onUrgent set the default action, and the library installed itself again");
}

void Story::usersClear() {
    section("The users clear some of their handlers");
    m_journal->clearHandlerWithFunction(SIGTERM, journal::onTerm);
    say("SIGTERM      journal::onTerm        by function");
    SVSignalHandler record = recordOf(SIGUSR2, monitor::onUsr2);
    m_monitor->clearHandler(record);
    say("SIGUSR2      monitor::onUsr2        by handler record");
    SVSignalHandlerList batch = batchOfMonitor();
    m_monitor->clearHandlers(batch);
    say("SIGALRM      monitor::onTimer       in a list");
    say("SIGRTMIN+3   monitor::onRealTime    in a list");
    say("");
    sayCallHeadings();
    expectCalls({m_outside.kill(SIGTERM)}, {"host::onTerm", "monitor::onTerm"});
    expectCalls({m_outside.queue(SIGUSR2, 43)}, {"journal::onUsr2"});
    expectCalls({m_outside.kill(SIGALRM)}, {});
    expectCalls({m_outside.queue(realTimeSignal(), 4)}, {});
    say("");
    confirm(takenOver({SIGALRM, realTimeSignal()}),
            "SIGALRM and SIGRTMIN+3 stay taken over, although nobody is left to call");
}

void Story::oneSignalIsHandedBack() {
    section("stopHandlingSignal(SIGTERM)");
    m_monitor->stopHandlingSignal(SIGTERM);
    confirm(m_hostsActions->unchangedFor(SIGTERM), "host::onTerm is installed again, as it was");
    confirm(takenOver({SIGUSR1, SIGSEGV, SIGUSR2}), "the other signals are still taken over");
    say("");
    sayCallHeadings();
    expectCalls({m_outside.kill(SIGTERM)}, {"host::onTerm"});
    expectCalls({m_outside.kill(SIGUSR1)}, {"host::onUsr1", "journal::onUsr1"});
}

void Story::everySignalIsHandedBack() {
    section("stopHandlingSignals");
    m_monitor->stopHandlingSignals();
    confirm(!SVSignalHandlerManager::currentlyHandlingSignals, "no signals are being handled");
    confirm(m_hostsActions->unchangedFor(signalsOfHost()),
            "the host's 3 handlers are installed again, with their masks and flags");
    std::vector<int> nobodys = signalsOfUsersOnly();
    nobodys.push_back(SIGURG);
    confirm(installed(nobodys, address(SIG_IGN)),
            "ignored, because the host had no handler: " + namesOf(nobodys));
    say("");
    sayCallHeadings();
    expectCalls({m_outside.kill(SIGUSR1)}, {"host::onUsr1"});
    expectCalls({m_outside.kill(SIGTERM)}, {"host::onTerm"});
    expectCalls({m_outside.queue(SIGUSR2, 44)}, {});
    host::guardPageAgain();
    expectCalls({writeToPage(m_page, 'b')}, {"host::repairPage"});
}

void Story::managerStartsAgain() {
    section("startHandlingSignals, once more");
    m_monitor->startHandlingSignals();
    confirm(takenOver(signalsOfHost()) && takenOver({SIGUSR2, SIGURG}),
            "what was registered is taken over again");
    confirm(installed({SIGALRM}, address(SIG_IGN)), "SIGALRM, with no handler left, is not");
    say("");
    sayCallHeadings();
    expectCalls({m_outside.kill(SIGUSR1)}, {"host::onUsr1", "journal::onUsr1"});
    expectCalls({m_outside.queue(SIGUSR2, 45)}, {"journal::onUsr2"});
}

void Story::managersGo() {
    section("The journal's manager goes, and then the last one");
    m_journal.reset();
    confirm(SVSignalHandlerManager::numberOfManagers == 1 && takenOver(signalsOfHost()),
            "1 manager is left, and nothing changes: handlers belong to the process");
    say("");
    sayCallHeadings();
    expectCalls({m_outside.kill(SIGUSR1)}, {"host::onUsr1", "journal::onUsr1"});
    say("");
    m_monitor.reset();
    confirm(SVSignalHandlerManager::numberOfManagers == 0 &&
                !SVSignalHandlerManager::currentlyHandlingSignals &&
                SVSignalHandlerManager::handlerTables == nullptr,
            "no manager is left, and the registry is gone");
    confirm(m_hostsActions->unchangedFor(signalsOfHost()),
            "the host's 3 handlers are installed again");
    confirm(takenOver({SIGUSR2, SIGURG}),
            "SIGUSR2, SIGURG, for which the host had none, still go to the library");
    say("");
    sayCallHeadings();
    expectCalls({m_outside.kill(SIGUSR1)}, {"host::onUsr1"});
    expectCalls({m_outside.kill(SIGTERM)}, {"host::onTerm"});
    host::guardPageAgain();
    expectCalls({writeToPage(m_page, 'c')}, {"host::repairPage"});
}

void Story::fatalSignalsArrive() {
    section("The fatal three, each in a process whose host has no handler for it");
    say("All handlers are called, and then the process ends, with status 0 even after a fault.");
    showFatalSignals();
}

int tellStory(bool wholeDump) {
    try {
        Story(wholeDump).tell();
    } catch (const Sorvane::SVException& exception) {
        fail(std::string("the library threw: ") + exception.getMessage());
    }
    std::fflush(stdout);
    return storyTold;
}

}  // namespace

}  // namespace demo

// The story is told in a process of its own, so that whatever becomes of it is noticed: killed,
// stuck, or ended by the library with status 0.
int main(int argc, char** argv) {
    using namespace demo;
    const bool wholeDump = argc == 2 && std::string(argv[1]) == "--dump";
    if (argc > 1 && !wholeDump) {
        std::fprintf(stderr, "usage: %s [--dump]\n", argv[0]);
        return 2;
    }
    openReport();
    makeCallLog();
    keepEndsOfProcesses();
    holdSignals();
    const Ending ending =
        awaitEnd(startProcess([wholeDump] { return tellStory(wholeDump); }), storySeconds);
    if (ending.isStatus(storyTold)) {
        return 0;
    }
    if (!ending.isStatus(storyFailed)) {
        std::fprintf(stderr, "FAILED in \"%s\": there the process %s\n", currentSection(),
                     ending.text().c_str());
    }
    return 1;
}
