// Signals that arrive while they are being taken over, one by one: which are kept, how they are
// sent again, and what becomes of those that can be neither kept nor sent.

#include <../support/svatomicref.h>
#include <../utilities/svtakeover.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <thread>
#include <utility>

#include "support/emulation.h"
#include "support/faults.h"
#include "support/gate.h"
#include "support/joining_thread.h"
#include "support/manager_fixture.h"
#include "support/memory_limit.h"
#include "support/overtaking.h"

namespace {

using Sorvane::SVTakeOver;

// A queued signal: each that is sent arrives, in its order.
const int queued = SIGRTMIN + 3;

// The codes in which the kernel's own ones travel begin here.
constexpr int travelling = -0x10000;

// The kernel lets a thread send to itself what says that anybody sent it.
void sendToSelf(int signalNumber, int code, int value = 0) {
    siginfo_t information = {};
    information.si_signo = signalNumber;
    information.si_code = code;
    information.si_pid = getpid();
    information.si_value.sival_int = value;
    syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), signalNumber, &information);
}

void unblock(int signalNumber) {
    const sigset_t signals = setOf({signalNumber});
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// While one of these lives, no signal can be queued.
class FullQueue {
public:
    FullQueue() {
        getrlimit(RLIMIT_SIGPENDING, &m_former);
        rlimit none = m_former;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_SIGPENDING, &none);
    }
    FullQueue(const FullQueue&) = delete;
    FullQueue& operator=(const FullQueue&) = delete;
    ~FullQueue() { setrlimit(RLIMIT_SIGPENDING, &m_former); }

private:
    rlimit m_former = {};
};

// The host's handler is the one that everything must reach.
class KeptSignal : public OneManagerTest {
protected:
    ~KeptSignal() noexcept override = default;

    void SetUp() override {
        if (emulated || underValgrindQ()) {
            GTEST_SKIP() << "an emulator has signal queues of its own";
        }
        takeOver(queued);
    }

    void takeOver(int signalNumber) {
        hostInstalls(signalNumber, hostInformationHandler);
        m_manager.handleSignal(signalNumber);
    }
};

void expectDispatchedHere(int code) {
    ASSERT_EQ(callCount(), 1U);
    EXPECT_EQ(lastCall().function, addressOf(hostInformationHandler));
    EXPECT_EQ(lastCall().thread, gettid());
    EXPECT_EQ(lastCall().informationCopy.si_code, code);
}

void expectDispatchedHereWithoutContext(int code) {
    expectDispatchedHere(code);
    EXPECT_EQ(lastCall().context, nullptr);
}

// --- What is kept ------------------------------------------------------------------------------

TEST_F(KeptSignal, IsNoneWithANumberThatIsNoSignal) {
    for (const int number : {-1, 0, lastSystemSignal + 1, 1000}) {
        const SVTakeOver takeOver(number);
        EXPECT_FALSE(SVTakeOver::underWayQ(number)) << number;
    }
}

TEST_F(KeptSignal, IsDispatchedAtOnceWithoutMemory) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    std::size_t calls = 0;
    {
        const SVTakeOver takeOver(queued);
        const MemoryLimit noMemory;
        raise(queued);
        calls = callCount();
    }
    EXPECT_EQ(calls, 1U);
    expectDispatchedHere(SI_TKILL);
    EXPECT_NE(lastCall().context, nullptr);
}

TEST_F(KeptSignal, IsDispatchedAtOnceWhenNothingIsKnownOfIt) {
    const SVTakeOver takeOver(queued);
    actualSignalHandler(queued, nullptr, nullptr);
    EXPECT_EQ(callsOf(hostInformationHandler), 1U);
    EXPECT_EQ(lastCall().information, nullptr);
}

TEST_F(KeptSignal, IsNoFaultOfTheThreadThatTakesItOver) {
    for (const int signalNumber : {SIGSEGV, SIGBUS, SIGILL, SIGFPE}) {
        takeOver(signalNumber);
        forgetCalls();
        const SVTakeOver takingOver(signalNumber);
        constexpr int anyFault = 1;
        sendToSelf(signalNumber, anyFault);
        expectDispatchedHere(anyFault);
    }
}

TEST_F(KeptSignal, MayBeOneOfAFaultThatWasOnlySent) {
    takeOver(SIGSEGV);
    for (const int code : {SI_QUEUE, SI_USER, SI_TKILL}) {
        forgetCalls();
        {
            const SVTakeOver takingOver(SIGSEGV);
            sendToSelf(SIGSEGV, code);
            EXPECT_EQ(callCount(), 0U) << code;
        }
        expectDispatchedHere(code);
    }
}

TEST_F(KeptSignal, IsKeptUntilTheLastOfTwoWhoTakeItOverIsDone) {
    {
        const SVTakeOver takingOver(queued);
        {
            const SVTakeOver takingOverToo(queued);
            raise(queued);
        }
        EXPECT_EQ(callCount(), 0U);
        EXPECT_TRUE(SVTakeOver::underWayQ(queued));
    }
    expectDispatchedHere(SI_TKILL);
}

TEST_F(KeptSignal, MayBeADefectOfMemoryThatIsOnlyReported) {
    takeOver(SIGBUS);
    {
        const SVTakeOver takingOver(SIGBUS);
        sendToSelf(SIGBUS, BUS_MCEERR_AO);
        EXPECT_EQ(callCount(), 0U);
    }
    expectDispatchedHere(BUS_MCEERR_AO);
}

const ClosedPage* closedPage = nullptr;

void openClosedPage(int signalNumber, siginfo_t* information, void* context) {
    closedPage->open();
    noteCall(addressOf(openClosedPage), signalNumber, information, context);
}

unsigned int managers() {
    return Sorvane::SVAtomicRef<unsigned int>(Manager::numberOfManagers).load();
}

void waitForManagers(unsigned int number) {
    while (managers() != number) {
        std::this_thread::yield();
    }
}

// It comes again and again for as long, each time with a manager of its own. That its thread has
// taken the signal over before changes nothing.
TEST_F(KeptSignal, IsNoFaultOfAnotherThreadWhichComesAgainUntilItIsTakenOver) {
    const ClosedPage page;
    closedPage = &page;
    hostInstalls(SIGSEGV, openClosedPage);
    m_manager.handleSignal(SIGSEGV);
    pid_t faulty = 0;
    std::optional<SVTakeOver> takingOver(std::in_place, SIGSEGV);
    JoiningThread other([&] {
        faulty = gettid();
        { const SVTakeOver earlier(SIGSEGV); }
        writeTo(page.address());
    });
    waitForManagers(2);
    waitForManagers(1);
    EXPECT_EQ(callCount(), 0U);
    takingOver.reset();
    other.join();
    ASSERT_EQ(callsOf(openClosedPage), 1U);
    EXPECT_EQ(lastCall().thread, faulty);
}

// What the host had is not on record yet.
TEST_F(KeptSignal, IsNotHandedBackBeforeItIsTakenOver) {
    m_manager.setHandlerFromFunction(SIGUSR1, userHandler);
    m_manager.handleSignal(SIGUSR1);
    {
        const SVTakeOver takingOver(SIGUSR1);
        m_manager.stopHandlingSignal(SIGUSR1);
        EXPECT_TRUE(takenOverQ(SIGUSR1));
    }
    m_manager.stopHandlingSignal(SIGUSR1);
    EXPECT_TRUE(ignoredInSystemQ(SIGUSR1));
}

// --- Codes -------------------------------------------------------------------------------------

TEST_F(KeptSignal, ArrivesWithItsCodeAlsoIfThatLooksLikeOneThatTravels) {
    for (const int code : {travelling + SI_TKILL, travelling, 2 * travelling}) {
        forgetCalls();
        {
            const SVTakeOver takingOver(queued);
            sendToSelf(queued, code);
            EXPECT_EQ(callCount(), 0U);
        }
        expectDispatchedHere(code);
    }
}

// --- Sending -----------------------------------------------------------------------------------

// Sends to itself, and is still there when what was kept is sent again.
class SendingThread {
public:
    explicit SendingThread(int code, int signalNumber = queued)
        : m_thread([this, code, signalNumber] {
              sendToSelf(signalNumber, code);
              m_sent.open();
              m_over.pass();
          }) {
        m_sent.pass();
    }
    SendingThread(const SendingThread&) = delete;
    SendingThread& operator=(const SendingThread&) = delete;
    ~SendingThread() { m_over.open(); }

private:
    Gate m_sent;
    Gate m_over;
    JoiningThread m_thread;
};

// The kernel would not let this thread send most of these as they are.
TEST_F(KeptSignal, OfAnotherThreadArrivesThereWithItsCode) {
    constexpr int lastKnownCode = 0x1000;
    for (const int code :
         {static_cast<int>(SI_USER), static_cast<int>(SI_TKILL), static_cast<int>(SI_KERNEL),
          lastKnownCode, static_cast<int>(SI_QUEUE), static_cast<int>(SI_TIMER)}) {
        forgetCalls();
        {
            std::optional<SVTakeOver> takingOver(std::in_place, queued);
            const SendingThread sender(code);
            takingOver.reset();
        }
        ASSERT_EQ(callCount(), 1U) << code;
        EXPECT_NE(lastCall().thread, gettid()) << code;
        EXPECT_EQ(lastCall().informationCopy.si_code, code);
        EXPECT_NE(lastCall().context, nullptr) << code;
    }
}

// The thread is joined before the kernel has quite done with it.
void sendOnAThreadThatEnds(int code) {
    pid_t thread = 0;
    JoiningThread([&thread, code] {
        thread = gettid();
        sendToSelf(queued, code);
    }).join();
    while (syscall(SYS_tgkill, getpid(), thread, 0) == 0) {
        std::this_thread::yield();
    }
}

TEST_F(KeptSignal, OfAThreadThatHasEndedGoesToTheProcess) {
    for (const int code : {static_cast<int>(SI_TKILL), static_cast<int>(SI_QUEUE)}) {
        forgetCalls();
        {
            const SVTakeOver takingOver(queued);
            sendOnAThreadThatEnds(code);
            EXPECT_EQ(callCount(), 0U);
        }
        expectDispatchedHere(code);
        EXPECT_NE(lastCall().context, nullptr);
    }
}

TEST_F(KeptSignal, OfAThreadThatHasEndedIsDispatchedHereWhenTheQueueIsFull) {
    std::optional<SVTakeOver> takingOver(std::in_place, queued);
    sendOnAThreadThatEnds(SI_QUEUE);
    {
        const FullQueue full;
        takingOver.reset();
    }
    expectDispatchedHereWithoutContext(SI_QUEUE);
}

TEST_F(KeptSignal, OfThisThreadIsDispatchedHereWhenTheQueueIsFull) {
    std::optional<SVTakeOver> takingOver(std::in_place, queued);
    raise(queued);
    {
        const FullQueue full;
        takingOver.reset();
    }
    expectDispatchedHereWithoutContext(SI_TKILL);
}

TEST_F(KeptSignal, OfAnotherThreadIsDispatchedHereWithItsCodeWhenTheQueueIsFull) {
    for (const int code : {static_cast<int>(SI_TKILL), static_cast<int>(SI_QUEUE)}) {
        forgetCalls();
        std::optional<SVTakeOver> takingOver(std::in_place, queued);
        const SendingThread sender(code);
        {
            const FullQueue full;
            takingOver.reset();
        }
        expectDispatchedHereWithoutContext(code);
    }
}

// The kernel does not let this thread send such a one, and there is no code left for it to travel
// with.
TEST_F(KeptSignal, OfAnotherThreadIsDispatchedHereWithACodeThatCannotTravel) {
    constexpr int unknownCode = 0x2000;
    std::optional<SVTakeOver> takingOver(std::in_place, queued);
    const SendingThread sender(unknownCode);
    takingOver.reset();
    expectDispatchedHereWithoutContext(unknownCode);
}

// Of the signals that are no real-time ones, the kernel keeps one for a thread that does not take
// it.
TEST_F(KeptSignal, OfAnotherThreadIsNotLostThoughItWouldMergeWithALaterOne) {
    takeOver(SIGUSR1);
    constexpr unsigned int count = 5;
    std::optional<SVTakeOver> takingOver(std::in_place, SIGUSR1);
    Gate kept;
    Gate sent;
    JoiningThread other([&kept, &sent] {
        for (unsigned int i = 0; i < count; ++i) {
            raise(SIGUSR1);
        }
        const BlockedSignals blocked{SIGUSR1};
        kept.open();
        sent.pass();
    });
    kept.pass();
    takingOver.reset();
    sent.open();
    other.join();
    EXPECT_EQ(callsOf(hostInformationHandler), count);
}

TEST_F(KeptSignal, OfEachOfTwoOtherThreadsReachesThatOneAndMergesWithNothing) {
    takeOver(SIGUSR1);
    {
        std::optional<SVTakeOver> takingOver(std::in_place, SIGUSR1);
        const SendingThread first(SI_TKILL, SIGUSR1);
        const SendingThread second(SI_TKILL, SIGUSR1);
        takingOver.reset();
    }
    ASSERT_EQ(callCount(), 2U);
    EXPECT_NE(callAt(0).thread, gettid());
    EXPECT_NE(callAt(1).thread, gettid());
    EXPECT_NE(callAt(0).thread, callAt(1).thread);
}

// A fault comes again by itself when its dispatch returns.
TEST_F(KeptSignal, IsSentOnToWhereItBelongsUnlessItIsAFault) {
    takeOver(SIGSEGV);
    siginfo_t information = {};
    information.si_signo = SIGSEGV;
    information.si_code = SEGV_MAPERR;
    SVTakeOver::sendAgain(SIGSEGV, information);
    EXPECT_EQ(callCount(), 0U);
    information.si_code = SI_QUEUE;
    SVTakeOver::sendAgain(SIGSEGV, information);
    expectDispatchedHere(SI_QUEUE);
}

// --- Exceptions --------------------------------------------------------------------------------

// Has not returned when it throws, so its signal is still held back.
void throwValue(int signalNumber, siginfo_t* information, void*) {
    noteCall(addressOf(throwValue), signalNumber);
    unblock(signalNumber);
    throw information->si_value.sival_int;
}

TEST_F(KeptSignal, IsSentAlsoIfTheHandlerOfAnEarlierOneThrowsAndTheFirstExceptionGoesOn) {
    m_manager.setHandlerFromFunction(queued, throwValue);
    int caught = 0;
    try {
        const SVTakeOver takingOver(queued);
        sendToSelf(queued, SI_QUEUE, 1);
        sendToSelf(queued, SI_QUEUE, 2);
        EXPECT_EQ(callCount(), 0U);
    } catch (int value) {
        caught = value;
    }
    EXPECT_EQ(caught, 1);
    EXPECT_EQ(callsOf(throwValue), 2U);
}

TEST_F(KeptSignal, IsSentAlsoIfTheTakeOverEndsWithAnExceptionWhichGoesOnRatherThanTheHandlers) {
    struct OfTheTakeOver {};
    m_manager.setHandlerFromFunction(queued, throwValue);
    const auto takeOverInVain = [] {
        const SVTakeOver takingOver(queued);
        sendToSelf(queued, SI_QUEUE, 1);
        throw OfTheTakeOver();
    };
    EXPECT_THROW(takeOverInVain(), OfTheTakeOver);
    EXPECT_EQ(callsOf(throwValue), 1U);
}

// --- Two at once -------------------------------------------------------------------------------

siginfo queuedInformation() {
    siginfo_t information = {};
    information.si_code = SI_QUEUE;
    return information;
}

// The one that is kept first is sent first.
TEST_F(KeptSignal, IsNotLostWhenAnotherOneIsKeptJustBeforeIt) {
    SKIP_WITHOUT_STEPS();
    lastBefore([](unsigned int number) {
        forgetCalls();
        bool met = false;
        {
            const SVTakeOver takingOver(queued);
            siginfo_t information = queuedInformation();
            met = overtake([&] { SVTakeOver::keptQ(queued, &information); }, atInstruction(number),
                           [] { raise(queued); });
        }
        EXPECT_EQ(callCount(), met ? 2U : 1U) << "the other one at instruction " << number;
        return callAt(0).informationCopy.si_code == SI_QUEUE;
    });
}

// What is just being kept when it is found to be taken over is sent by whoever keeps it.
TEST_F(KeptSignal, IsSentAlthoughTheTakeOverEndsBeforeItIsKept) {
    SKIP_WITHOUT_STEPS();
    lastBefore([](unsigned int number) {
        forgetCalls();
        std::optional<SVTakeOver> takingOver(std::in_place, queued);
        siginfo_t information = queuedInformation();
        bool kept = false;
        overtake([&] { kept = SVTakeOver::keptQ(queued, &information); }, atInstruction(number),
                 [&takingOver] { takingOver.reset(); });
        takingOver.reset();
        EXPECT_EQ(callCount(), kept ? 1U : 0U) << "the end at instruction " << number;
        return kept;
    });
}

// Many that came to another thread, which does not take them, are on their way to it.
class CodesOnTheirWay {
public:
    explicit CodesOnTheirWay(unsigned int count) {
        const SVTakeOver takingOver(queued);
        m_thread.emplace([this, count] {
            for (unsigned int i = 0; i < count; ++i) {
                raise(queued);
            }
            const BlockedSignals blocked{queued};
            m_kept.open();
            m_over.pass();
        });
        m_kept.pass();
    }
    CodesOnTheirWay(const CodesOnTheirWay&) = delete;
    CodesOnTheirWay& operator=(const CodesOnTheirWay&) = delete;
    ~CodesOnTheirWay() { m_over.open(); }

private:
    Gate m_kept;
    Gate m_over;
    std::optional<JoiningThread> m_thread;
};

TEST_F(KeptSignal, OfAUserKeepsItsCodeWhileOthersAreOnTheirWay) {
    const CodesOnTheirWay onTheirWay(1);
    siginfo_t information = {};
    information.si_code = SI_QUEUE;
    EXPECT_FALSE(SVTakeOver::keptQ(queued, &information));
    EXPECT_EQ(information.si_code, SI_QUEUE);
}

struct ChangedBack {
    bool first;
    bool second;
};

// Two that say that they have travelled, of which the second arrives at an instruction of the
// first.
ChangedBack changeTwoBack(unsigned int onTheirWay, unsigned int number) {
    const CodesOnTheirWay codes(onTheirWay);
    siginfo_t first = {};
    first.si_code = travelling + SI_TKILL;
    siginfo_t second = first;
    overtake([&first] { SVTakeOver::keptQ(queued, &first); }, atInstruction(number),
             [&second] { SVTakeOver::keptQ(queued, &second); });
    return {first.si_code == SI_TKILL, second.si_code == SI_TKILL};
}

TEST_F(KeptSignal, IsWhatItWasAlsoIfAnotherOneArrivesJustBeforeItIsChangedBack) {
    SKIP_WITHOUT_STEPS();
    const unsigned int justBefore = lastBefore([](unsigned int number) {
        const ChangedBack changed = changeTwoBack(1, number);
        EXPECT_FALSE(changed.first && changed.second) << "only one was on its way";
        return changed.first;
    });
    const ChangedBack changed = changeTwoBack(2, justBefore);
    EXPECT_TRUE(changed.first);
    EXPECT_TRUE(changed.second);
}

}  // namespace
