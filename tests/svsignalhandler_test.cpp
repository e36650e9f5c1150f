// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The handler record: what it keeps, what it installs, whom it calls, and how it reads.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sorvane/svsignalhandlermanager.h>
#include <sys/auxv.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <limits>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

using Sorvane::SVSignalHandler;

// ---- Handlers. Those with external linkage have names that the dynamic linker knows. ----------

namespace {

// What the handlers below were last called with.
int calls = 0;
int seenSignal = -1;
void* seenInformation = nullptr;
void* seenContext = nullptr;

}  // namespace

void handlerWithInformation(int signalNumber, siginfo* information, void* context) {
    ++calls;
    seenSignal = signalNumber;
    seenInformation = information;
    seenContext = context;
}

void handlerWithoutInformation(int signalNumber) {
    ++calls;
    seenSignal = signalNumber;
}

// Its name, as a person reads it, has markup characters in it.
template <typename First, typename Second>
void handlerWithMarkupInItsName(int) {}
template void handlerWithMarkupInItsName<int&, char>(int);

namespace {

void handlerWithoutAKnownName(int) {}

static_assert(std::is_nothrow_default_constructible_v<SVSignalHandler>);
static_assert(std::is_nothrow_copy_constructible_v<SVSignalHandler>);
static_assert(std::is_nothrow_copy_assignable_v<SVSignalHandler>);
static_assert(
    std::is_same_v<decltype(std::declval<const SVSignalHandler>().getHandlerFunction()), void*>);
static_assert(
    std::is_same_v<decltype(std::declval<const SVSignalHandler>().getSignalNumber()), int>);
static_assert(
    std::is_same_v<decltype(std::declval<SVSignalHandler>().getOSStruct()), struct sigaction>);

template <typename Function>
void* addressOf(Function* function) {
    return reinterpret_cast<void*>(function);
}

bool sameMaskQ(const sigset_t& left, const sigset_t& right) {
    for (int signalNumber = 1; signalNumber <= SIGRTMAX; ++signalNumber) {
        if (sigismember(&left, signalNumber) != sigismember(&right, signalNumber)) {
            return false;
        }
    }
    return true;
}

bool emptyMaskQ(const sigset_t& mask) {
    sigset_t none;
    sigemptyset(&none);
    return sameMaskQ(mask, none);
}

void expectSameOSRecord(const struct sigaction& left, const struct sigaction& right) {
    EXPECT_EQ(left.sa_sigaction, right.sa_sigaction);
    EXPECT_EQ(left.sa_flags, right.sa_flags);
    EXPECT_TRUE(sameMaskQ(left.sa_mask, right.sa_mask));
    EXPECT_EQ(left.sa_restorer, right.sa_restorer);
}

void expectSame(SVSignalHandler left, SVSignalHandler right) {
    EXPECT_EQ(left.getSignalNumber(), right.getSignalNumber());
    EXPECT_EQ(left.getHandlerFunction(), right.getHandlerFunction());
    EXPECT_EQ(left.preExistsQ(), right.preExistsQ());
    EXPECT_EQ(left.externalQ(), right.externalQ());
    EXPECT_EQ(left.validQ(), right.validQ());
    expectSameOSRecord(left.getOSStruct(), right.getOSStruct());
}

// An operating system's record with something in each of its fields.
struct sigaction someOSRecord() {
    struct sigaction record = {};
    record.sa_sigaction = handlerWithInformation;
    record.sa_flags = SA_SIGINFO | SA_NODEFER | SA_NOCLDSTOP;
    sigaddset(&record.sa_mask, SIGUSR1);
    sigaddset(&record.sa_mask, SIGRTMIN + 3);
    return record;
}

struct sigaction oneArgumentOSRecord(void (*handler)(int)) {
    struct sigaction record = {};
    record.sa_handler = handler;
    return record;
}

constexpr int functionFlags = SA_RESTART | SA_ONSTACK;

// ---- What a record keeps ---------------------------------------------------------------------

TEST(SVSignalHandler, FromAThreeArgumentFunctionHoldsItWithSigInfo) {
    SVSignalHandler record(SIGUSR1, handlerWithInformation, false, false, true);
    EXPECT_EQ(record.getSignalNumber(), SIGUSR1);
    EXPECT_EQ(record.getHandlerFunction(), addressOf(handlerWithInformation));
    EXPECT_EQ(record.getOSStruct().sa_sigaction, handlerWithInformation);
    EXPECT_EQ(record.getOSStruct().sa_flags, functionFlags | SA_SIGINFO);
    EXPECT_TRUE(emptyMaskQ(record.getOSStruct().sa_mask));
}

TEST(SVSignalHandler, FromAOneArgumentFunctionHoldsItWithoutSigInfo) {
    SVSignalHandler record(SIGUSR1, handlerWithoutInformation, false, false, true);
    EXPECT_EQ(record.getSignalNumber(), SIGUSR1);
    EXPECT_EQ(record.getHandlerFunction(), addressOf(handlerWithoutInformation));
    EXPECT_EQ(record.getOSStruct().sa_handler, handlerWithoutInformation);
    EXPECT_EQ(record.getOSStruct().sa_flags, functionFlags);
    EXPECT_TRUE(emptyMaskQ(record.getOSStruct().sa_mask));
}

TEST(SVSignalHandler, FromSigDflReports0AndIsValid) {
    SVSignalHandler record(SIGUSR1, SIG_DFL, false, false, true);
    EXPECT_EQ(record.getHandlerFunction(), nullptr);
    EXPECT_EQ(record.getOSStruct().sa_handler, SIG_DFL);
    EXPECT_EQ(record.getOSStruct().sa_flags & SA_SIGINFO, 0);
    EXPECT_TRUE(record.validQ());
}

TEST(SVSignalHandler, FromSigIgnReports1AndIsValid) {
    SVSignalHandler record(SIGUSR1, SIG_IGN, false, false, true);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(record.getHandlerFunction()), 1U);
    EXPECT_EQ(record.getOSStruct().sa_handler, SIG_IGN);
    EXPECT_EQ(record.getOSStruct().sa_flags & SA_SIGINFO, 0);
    EXPECT_TRUE(record.validQ());
}

TEST(SVSignalHandler, FromAnOSRecordKeepsItWhole) {
    struct sigaction osRecord = someOSRecord();
    SVSignalHandler record(SIGUSR2, osRecord, true, true, true);
    EXPECT_EQ(record.getSignalNumber(), SIGUSR2);
    expectSameOSRecord(record.getOSStruct(), someOSRecord());
}

TEST(SVSignalHandler, FromAnOSRecordKeepsNoReferenceToIt) {
    struct sigaction osRecord = someOSRecord();
    SVSignalHandler record(SIGUSR2, osRecord, true, true, true);
    osRecord = {};
    expectSameOSRecord(record.getOSStruct(), someOSRecord());
}

TEST(SVSignalHandler, FromAnOSRecordReportsTheAddressOfEitherForm) {
    struct sigaction three = someOSRecord();
    EXPECT_EQ(SVSignalHandler(1, three, true, true, true).getHandlerFunction(),
              addressOf(handlerWithInformation));
    struct sigaction one = oneArgumentOSRecord(handlerWithoutInformation);
    EXPECT_EQ(SVSignalHandler(1, one, true, true, true).getHandlerFunction(),
              addressOf(handlerWithoutInformation));
    struct sigaction ignored = oneArgumentOSRecord(SIG_IGN);
    EXPECT_EQ(SVSignalHandler(1, ignored, true, true, true).getHandlerFunction(),
              addressOf(SIG_IGN));
}

TEST(SVSignalHandler, KeepsTheSignalNumberWithoutARangeTest) {
    for (const int signalNumber :
         {-1, 0, 61, 1000, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        struct sigaction osRecord = someOSRecord();
        EXPECT_EQ(SVSignalHandler(signalNumber, SIG_IGN, false, false, true).getSignalNumber(),
                  signalNumber);
        EXPECT_EQ(SVSignalHandler(signalNumber, handlerWithInformation, false, false, true)
                      .getSignalNumber(),
                  signalNumber);
        EXPECT_EQ(SVSignalHandler(signalNumber, osRecord, false, false, true).getSignalNumber(),
                  signalNumber);
    }
}

TEST(SVSignalHandler, TakesItsThreeFlagsInTheOrderPreExistsExternalValid) {
    struct sigaction osRecord = someOSRecord();
    for (int bits = 0; bits < 8; ++bits) {
        const bool preExists = (bits & 4) != 0;
        const bool external = (bits & 2) != 0;
        const bool valid = (bits & 1) != 0;
        for (const SVSignalHandler& record :
             {SVSignalHandler(1, handlerWithInformation, preExists, external, valid),
              SVSignalHandler(1, handlerWithoutInformation, preExists, external, valid),
              SVSignalHandler(1, osRecord, preExists, external, valid)}) {
            EXPECT_EQ(record.preExistsQ(), preExists);
            EXPECT_EQ(record.externalQ(), external);
            EXPECT_EQ(record.validQ(), valid);
        }
    }
}

TEST(SVSignalHandler, DefaultRecordIsAllZero) {
    SVSignalHandler record;
    EXPECT_EQ(record.getSignalNumber(), 0);
    EXPECT_EQ(record.getHandlerFunction(), nullptr);
    EXPECT_FALSE(record.preExistsQ());
    EXPECT_FALSE(record.externalQ());
    EXPECT_FALSE(record.validQ());
    expectSameOSRecord(record.getOSStruct(), {});
}

// ---- Copies ----------------------------------------------------------------------------------

std::vector<SVSignalHandler> differentRecords() {
    struct sigaction osRecord = someOSRecord();
    return {SVSignalHandler(), SVSignalHandler(1, handlerWithInformation, false, false, true),
            SVSignalHandler(2, handlerWithoutInformation, true, false, false),
            SVSignalHandler(3, SIG_IGN, false, true, true),
            SVSignalHandler(4, osRecord, true, true, true)};
}

TEST(SVSignalHandlerCopy, EqualsItsOriginalInEveryAccessor) {
    for (const SVSignalHandler& original : differentRecords()) {
        const SVSignalHandler copy(original);
        expectSame(copy, original);
    }
}

TEST(SVSignalHandlerCopy, HasTheFlagsOfItsOriginal) {
    for (int bits = 0; bits < 8; ++bits) {
        const SVSignalHandler original(1, SIG_IGN, (bits & 4) != 0, (bits & 2) != 0,
                                       (bits & 1) != 0);
        const SVSignalHandler copy(original);
        SVSignalHandler assigned;
        assigned = original;
        for (const SVSignalHandler* const other : {&copy, &std::as_const(assigned)}) {
            EXPECT_EQ(other->preExistsQ(), (bits & 4) != 0);
            EXPECT_EQ(other->externalQ(), (bits & 2) != 0);
            EXPECT_EQ(other->validQ(), (bits & 1) != 0);
        }
    }
}

TEST(SVSignalHandlerCopy, ByAssignmentEqualsItsOriginalWhateverWasThereBefore) {
    for (const SVSignalHandler& original : differentRecords()) {
        for (SVSignalHandler target : differentRecords()) {
            EXPECT_EQ(&(target = original), &target);
            expectSame(target, original);
        }
    }
}

TEST(SVSignalHandlerCopy, SharesNothingWithItsOriginal) {
    SVSignalHandler original(1, handlerWithInformation, false, false, true);
    const SVSignalHandler copy(original);
    original = SVSignalHandler();
    expectSame(copy, SVSignalHandler(1, handlerWithInformation, false, false, true));
}

TEST(SVSignalHandlerCopy, ToItselfChangesNothing) {
    for (SVSignalHandler record : differentRecords()) {
        const SVSignalHandler before(record);
        const SVSignalHandler& same = record;
        record = same;
        expectSame(record, before);
    }
}

TEST(SVSignalHandlerCopy, OfTheOSRecordCanBeChangedWithoutTheRecord) {
    SVSignalHandler record(1, handlerWithInformation, false, false, true);
    struct sigaction osRecord = record.getOSStruct();
    osRecord.sa_flags = 0;
    osRecord.sa_sigaction = nullptr;
    EXPECT_NE(osRecord.sa_flags, record.getOSStruct().sa_flags);
    EXPECT_EQ(record.getOSStruct().sa_sigaction, handlerWithInformation);
}

// ---- Calls -----------------------------------------------------------------------------------

class SVSignalHandlerCall : public testing::Test {
protected:
    void SetUp() override {
        calls = 0;
        seenSignal = -1;
        seenInformation = nullptr;
        seenContext = nullptr;
    }

    siginfo m_information = {};
    int m_context = 0;
};

TEST_F(SVSignalHandlerCall, OfAThreeArgumentFunctionPassesBothArgumentsUnchanged) {
    SVSignalHandler record(44, handlerWithInformation, false, false, true);
    record(&m_information, &m_context);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(seenSignal, 44);
    EXPECT_EQ(seenInformation, &m_information);
    EXPECT_EQ(seenContext, &m_context);
}

TEST_F(SVSignalHandlerCall, OfAThreeArgumentFunctionPassesNullToo) {
    SVSignalHandler record(44, handlerWithInformation, false, false, true);
    seenInformation = &m_information;
    seenContext = &m_context;
    record(nullptr, nullptr);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(seenInformation, nullptr);
    EXPECT_EQ(seenContext, nullptr);
}

TEST_F(SVSignalHandlerCall, OfAOneArgumentFunctionPassesTheRecordsSignalAlone) {
    SVSignalHandler record(45, handlerWithoutInformation, false, false, true);
    record(&m_information, &m_context);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(seenSignal, 45);
}

TEST_F(SVSignalHandlerCall, OfAnOSRecordGoesByItsForm) {
    struct sigaction three = someOSRecord();
    SVSignalHandler(46, three, true, true, true)(&m_information, &m_context);
    EXPECT_EQ(seenSignal, 46);
    EXPECT_EQ(seenInformation, &m_information);
    EXPECT_EQ(seenContext, &m_context);
    struct sigaction one = oneArgumentOSRecord(handlerWithoutInformation);
    SVSignalHandler(47, one, true, true, true)(&m_information, &m_context);
    EXPECT_EQ(seenSignal, 47);
    EXPECT_EQ(calls, 2);
}

TEST_F(SVSignalHandlerCall, PassesTheRecordsSignalWhateverItsNumber) {
    SVSignalHandler record(std::numeric_limits<int>::min(), handlerWithoutInformation, false, false,
                           true);
    record(nullptr, nullptr);
    EXPECT_EQ(seenSignal, std::numeric_limits<int>::min());
}

TEST_F(SVSignalHandlerCall, DoesNotDependOnTheFlags) {
    SVSignalHandler record(48, handlerWithoutInformation, true, true, false);
    record(nullptr, nullptr);
    EXPECT_EQ(calls, 1);
}

TEST_F(SVSignalHandlerCall, OfACopyCallsTheSameFunction) {
    const SVSignalHandler original(44, handlerWithInformation, false, false, true);
    SVSignalHandler copy(original);
    copy(&m_information, &m_context);
    EXPECT_EQ(seenSignal, 44);
    EXPECT_EQ(seenInformation, &m_information);
}

TEST_F(SVSignalHandlerCall, LeavesTheRecordAsItWas) {
    SVSignalHandler record(44, handlerWithInformation, false, true, true);
    const SVSignalHandler before(record);
    record(&m_information, &m_context);
    expectSame(record, before);
}

TEST_F(SVSignalHandlerCall, OfADefaultRecordDoesNothing) {
    SVSignalHandler record;
    record(&m_information, &m_context);
    EXPECT_EQ(calls, 0);
}

// A call of the address 0 or 1 would be a fault, and the end of this process.
TEST_F(SVSignalHandlerCall, OfSigDflAndSigIgnDoesNothing) {
    SVSignalHandler(1, SIG_DFL, false, false, true)(&m_information, &m_context);
    SVSignalHandler(1, SIG_IGN, false, false, true)(&m_information, &m_context);
    EXPECT_EQ(calls, 0);
}

TEST_F(SVSignalHandlerCall, OfSigDflAndSigIgnDoesNothingEvenWithSigInfo) {
    for (const auto special : {SIG_DFL, SIG_IGN}) {
        struct sigaction osRecord = oneArgumentOSRecord(special);
        osRecord.sa_flags = SA_SIGINFO;
        SVSignalHandler(1, osRecord, true, true, true)(&m_information, &m_context);
    }
    EXPECT_EQ(calls, 0);
}

// ---- On real signals -------------------------------------------------------------------------

// What the signal handler below works with.
const SVSignalHandler* recordToCopy = nullptr;
siginfo* systemsInformation = nullptr;
void* systemsContext = nullptr;

// What dispatch does: copies a record, asks it, calls it.
void callACopy(int, siginfo* information, void* context) {
    systemsInformation = information;
    systemsContext = context;
    SVSignalHandler copy(*recordToCopy);
    if (copy.validQ() && !copy.preExistsQ() && !copy.externalQ()) {
        copy(information, context);
    }
}

TEST_F(SVSignalHandlerCall, OfACopyInsideASignalHandlerPassesWhatTheSystemGave) {
    const SVSignalHandler user(SIGUSR1, handlerWithInformation, false, false, true);
    recordToCopy = &user;
    SVSignalHandler installed(SIGUSR1, callACopy, false, false, true);
    const struct sigaction osRecord = installed.getOSStruct();
    ASSERT_EQ(sigaction(SIGUSR1, &osRecord, nullptr), 0);
    ASSERT_EQ(raise(SIGUSR1), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(seenSignal, SIGUSR1);
    EXPECT_NE(seenInformation, nullptr);
    EXPECT_EQ(seenInformation, systemsInformation);
    EXPECT_NE(seenContext, nullptr);
    EXPECT_EQ(seenContext, systemsContext);
}

char* placeOnHandlersStack = nullptr;

void noteTheStack(int) {
    placeOnHandlersStack = static_cast<char*>(__builtin_frame_address(0));
}

TEST_F(SVSignalHandlerCall, OfAnInstalledFunctionIsServedOnTheAlternateStack) {
    std::vector<char> room(static_cast<std::size_t>(SIGSTKSZ) + 65536);
    stack_t alternate = {};
    alternate.ss_sp = room.data();
    alternate.ss_size = room.size();
    stack_t former = {};
    ASSERT_EQ(sigaltstack(&alternate, &former), 0);
    SVSignalHandler installed(SIGUSR1, noteTheStack, false, false, true);
    const struct sigaction osRecord = installed.getOSStruct();
    ASSERT_EQ(sigaction(SIGUSR1, &osRecord, nullptr), 0);
    ASSERT_EQ(raise(SIGUSR1), 0);
    ASSERT_EQ(sigaltstack(&former, nullptr), 0);
    EXPECT_GE(placeOnHandlersStack, room.data());
    EXPECT_LT(placeOnHandlersStack, room.data() + room.size());
}

TEST_F(SVSignalHandlerCall, OfSigIgnInstalledIgnoresTheSignal) {
    SVSignalHandler installed(SIGUSR1, SIG_IGN, false, false, true);
    const struct sigaction osRecord = installed.getOSStruct();
    ASSERT_EQ(sigaction(SIGUSR1, &osRecord, nullptr), 0);
    EXPECT_EQ(raise(SIGUSR1), 0);
}

// ---- Text ------------------------------------------------------------------------------------

std::string textOf(const SVSignalHandler& record) {
    std::ostringstream stream;
    stream << record;
    return stream.str();
}

// What stands between a tag's beginning and its end; a text of its own when there is no such tag.
std::string contentOf(const std::string& text, const std::string& tag) {
    const std::string beginning = "<" + tag + ">";
    const std::size_t begin = text.find(beginning);
    const std::size_t end = text.find("</" + tag + ">");
    if (begin == std::string::npos || end == std::string::npos) {
        return "(no " + tag + ")";
    }
    return text.substr(begin + beginning.size(), end - begin - beginning.size());
}

// Whether every tag that begins ends, in the right order, and no other markup is there.
bool balancedMarkupQ(const std::string& text) {
    static const std::regex tag("<(/?)([A-Za-z]+)>");
    std::vector<std::string> open;
    std::string rest = text;
    for (std::smatch match; std::regex_search(rest, match, tag); rest = match.suffix()) {
        if (match.prefix().str().find_first_of("<>") != std::string::npos) {
            return false;
        }
        if (match[1].length() == 0) {
            open.push_back(match[2]);
        } else if (open.empty() || open.back() != match[2].str()) {
            return false;
        } else {
            open.pop_back();
        }
    }
    return open.empty() && rest.find_first_of("<>") == std::string::npos;
}

std::string executablesName() {
    return std::filesystem::read_symlink("/proc/self/exe").filename().string();
}

void expectOneLine(const std::string& text) {
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
    EXPECT_FALSE(text.empty());
    EXPECT_TRUE(balancedMarkupQ(text)) << text;
}

TEST(SVSignalHandlerText, TellsTheSignalsNumberAndName) {
    const std::string text = textOf(SVSignalHandler(SIGTERM, SIG_IGN, false, false, true));
    EXPECT_NE(text.find("15"), std::string::npos) << text;
    EXPECT_NE(text.find("SIGTERM"), std::string::npos) << text;
}

TEST(SVSignalHandlerText, TellsEverySignalByANameThatIsItsOwn) {
    std::vector<std::string> names;
    for (int signalNumber = 1; signalNumber <= 60; ++signalNumber) {
        const std::string text = textOf(SVSignalHandler(signalNumber, SIG_IGN, false, false, true));
        EXPECT_EQ(contentOf(text, "signalNumber"), std::to_string(signalNumber));
        names.push_back(contentOf(text, "signalName"));
    }
    EXPECT_EQ(names[SIGHUP - 1], "SIGHUP");
    EXPECT_EQ(names[SIGSEGV - 1], "SIGSEGV");
    EXPECT_EQ(names[static_cast<std::size_t>(SIGRTMIN + 6) - 1], "SIGRTMIN+6");
    for (const std::string& name : names) {
        EXPECT_EQ(std::count(names.begin(), names.end(), name), name == "unknown" ? 2 : 1) << name;
    }
}

TEST(SVSignalHandlerText, TellsTheRealTimeSignalsFromTheFirstToTheLast) {
    const auto nameOf = [](int signalNumber) {
        return contentOf(textOf(SVSignalHandler(signalNumber, SIG_IGN, false, false, true)),
                         "signalName");
    };
    EXPECT_EQ(nameOf(SIGRTMIN - 1), "unknown");
    EXPECT_EQ(nameOf(SIGRTMIN), "SIGRTMIN+0");
    EXPECT_EQ(nameOf(SIGRTMAX), "SIGRTMIN+" + std::to_string(SIGRTMAX - SIGRTMIN));
    EXPECT_EQ(nameOf(SIGRTMAX + 1), "unknown");
}

TEST(SVSignalHandlerText, TellsSignalsThatDoNotExist) {
    for (const int signalNumber :
         {-7, 0, 1000, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        const std::string text = textOf(SVSignalHandler(signalNumber, SIG_IGN, false, false, true));
        expectOneLine(text);
        EXPECT_EQ(contentOf(text, "signalNumber"), std::to_string(signalNumber));
    }
}

TEST(SVSignalHandlerText, TellsHowManyArgumentsTheHandlerTakes) {
    const std::string three =
        textOf(SVSignalHandler(1, handlerWithInformation, false, false, true));
    EXPECT_EQ(contentOf(three, "arguments"), "3");
    const std::string one =
        textOf(SVSignalHandler(1, handlerWithoutInformation, false, false, true));
    EXPECT_EQ(contentOf(one, "arguments"), "1");
}

TEST(SVSignalHandlerText, TellsTheHandlersFunctionAndModule) {
    const std::string text =
        textOf(SVSignalHandler(1, handlerWithoutInformation, false, false, true));
    EXPECT_EQ(contentOf(text, "function"), "handlerWithoutInformation(int)");
    EXPECT_EQ(contentOf(text, "module").find(executablesName() + "+0x"), 0U) << text;
}

TEST(SVSignalHandlerText, TellsAPlaceInsideAFunctionByItsDistanceFromTheBeginning) {
    const auto inside = reinterpret_cast<std::uintptr_t>(handlerWithoutInformation) + 1;
    const auto handler = reinterpret_cast<void (*)(int)>(inside);
    const std::string text = textOf(SVSignalHandler(1, handler, false, false, true));
    EXPECT_EQ(contentOf(text, "function"), "handlerWithoutInformation(int)+0x1");
}

// The kernel's own module, which has a name, but no file and so no folder.
TEST(SVSignalHandlerText, TellsAModuleWithoutAFolder) {
    const unsigned long kernelsModule = getauxval(AT_SYSINFO_EHDR);
    if (kernelsModule == 0) {
        GTEST_SKIP() << "this kernel has no module in the process";
    }
    const auto handler = reinterpret_cast<void (*)(int)>(kernelsModule);
    const std::string text = textOf(SVSignalHandler(1, handler, false, false, true));
    const std::string module = contentOf(text, "module");
    EXPECT_TRUE(module == "linux-vdso.so.1+0x0" || module == "linux-gate.so.1+0x0" ||
                module == "linux-gate.so.2+0x0")
        << text;
}

TEST(SVSignalHandlerText, TellsAPlaceBehindTheStartOfAFunctionByItsOffset) {
    const auto start = reinterpret_cast<std::uintptr_t>(&actualSignalHandler);
    const auto place = reinterpret_cast<void (*)(int)>(start + 26);
    EXPECT_EQ(contentOf(textOf(SVSignalHandler(1, place, false, false, true)), "function"),
              "actualSignalHandler+0x1a");
}

TEST(SVSignalHandlerText, TellsTheOffsetInTheModule) {
    Dl_info place = {};
    void* const function = reinterpret_cast<void*>(&handlerWithoutInformation);
    ASSERT_NE(dladdr(function, &place), 0);
    std::ostringstream expected;
    expected << executablesName() << "+0x" << std::hex
             << reinterpret_cast<std::uintptr_t>(function) -
                    reinterpret_cast<std::uintptr_t>(place.dli_fbase);
    EXPECT_EQ(contentOf(textOf(SVSignalHandler(1, handlerWithoutInformation, false, false, true)),
                        "module"),
              expected.str());
}

TEST(SVSignalHandlerText, TellsSigDflAndSigIgnByName) {
    EXPECT_NE(textOf(SVSignalHandler(1, SIG_DFL, false, false, true)).find("SIG_DFL"),
              std::string::npos);
    EXPECT_NE(textOf(SVSignalHandler(1, SIG_IGN, false, false, true)).find("SIG_IGN"),
              std::string::npos);
}

TEST(SVSignalHandlerText, TellsTheThreeFlagsApart) {
    for (int bits = 0; bits < 8; ++bits) {
        const std::string text =
            textOf(SVSignalHandler(1, SIG_IGN, (bits & 4) != 0, (bits & 2) != 0, (bits & 1) != 0));
        EXPECT_EQ(contentOf(text, "preExists"), (bits & 4) != 0 ? "1" : "0");
        EXPECT_EQ(contentOf(text, "external"), (bits & 2) != 0 ? "1" : "0");
        EXPECT_EQ(contentOf(text, "valid"), (bits & 1) != 0 ? "1" : "0");
    }
}

TEST(SVSignalHandlerText, IsOneLineForEveryRecord) {
    for (const SVSignalHandler& record : differentRecords()) {
        expectOneLine(textOf(record));
    }
}

TEST(SVSignalHandlerText, TellsWhatItCanOfAFunctionWithoutAKnownName) {
    const std::string text =
        textOf(SVSignalHandler(1, handlerWithoutAKnownName, false, false, true));
    expectOneLine(text);
    EXPECT_EQ(contentOf(text, "module").find(executablesName() + "+0x"), 0U) << text;
}

TEST(SVSignalHandlerText, TellsWhatItCanOfAnAddressInNoModule) {
    static char noFunction[1];
    const auto heap = std::make_unique<char[]>(16);
    for (void* const place : {static_cast<void*>(heap.get()), static_cast<void*>(noFunction)}) {
        const auto handler = reinterpret_cast<void (*)(int)>(place);
        expectOneLine(textOf(SVSignalHandler(1, handler, false, false, true)));
    }
}

TEST(SVSignalHandlerText, EscapesTheMarkupInAFunctionsName) {
    const std::string text =
        textOf(SVSignalHandler(1, handlerWithMarkupInItsName<int&, char>, false, false, true));
    expectOneLine(text);
    EXPECT_EQ(contentOf(text, "function"),
              "void handlerWithMarkupInItsName&lt;int&amp;, char&gt;(int)");
}

// A library of the system's, under a name that someone may well choose to confuse a reader with.
class OddlyNamedModule {
public:
    explicit OddlyNamedModule(const std::string& name) {
        std::string pattern = (std::filesystem::temp_directory_path() / "module-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            return;
        }
        m_directory = pattern;
        const std::filesystem::path file = m_directory / name;
        std::error_code error;
        if (std::filesystem::copy_file(mathematicsLibrary(), file, error)) {
            m_handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
        }
    }
    OddlyNamedModule(const OddlyNamedModule&) = delete;
    OddlyNamedModule& operator=(const OddlyNamedModule&) = delete;
    ~OddlyNamedModule() {
        if (m_handle != nullptr) {
            dlclose(m_handle);
        }
        std::error_code ignored;
        std::filesystem::remove_all(m_directory, ignored);
    }

    void* function() const { return m_handle == nullptr ? nullptr : dlsym(m_handle, "fegetround"); }

private:
    static std::filesystem::path mathematicsLibrary() {
        void* const handle = dlopen("libm.so.6", RTLD_NOW | RTLD_LOCAL);
        link_map* map = nullptr;
        if (handle == nullptr || dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0) {
            return {};
        }
        return std::filesystem::canonical(map->l_name);
    }

    std::filesystem::path m_directory;
    void* m_handle = nullptr;
};

TEST(SVSignalHandlerText, EscapesTheMarkupAndTheLineFeedInAModulesName) {
    const OddlyNamedModule module("lib<a&b>\n<module>.so");
    ASSERT_NE(module.function(), nullptr) << "the copied library could not be loaded";
    const auto handler = reinterpret_cast<void (*)(int)>(module.function());
    const std::string text = textOf(SVSignalHandler(1, handler, false, false, true));
    expectOneLine(text);
    EXPECT_EQ(contentOf(text, "function"), "fegetround");
    EXPECT_NE(contentOf(text, "module").find("&lt;a&amp;b&gt;"), std::string::npos) << text;
}

TEST(SVSignalHandlerText, IsTheSameWhateverTheStreamsNumberFormat) {
    const SVSignalHandler record(SIGTERM, handlerWithInformation, true, false, true);
    std::ostringstream stream;
    stream << std::hex << std::showbase << std::uppercase << std::boolalpha << std::showpos
           << record;
    EXPECT_EQ(stream.str(), textOf(record));
}

TEST(SVSignalHandlerText, IsWrittenToAStreamThatCanGoOn) {
    std::ostringstream stream;
    const SVSignalHandler record(1, SIG_IGN, false, false, true);
    std::ostream& result = stream << record;
    EXPECT_EQ(&result, &stream);
    result << "|" << record;
    EXPECT_EQ(stream.str(), textOf(record) + "|" + textOf(record));
}

}  // namespace
