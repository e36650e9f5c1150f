// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The one exception type: what it carries, how it can be caught, and that it arrives when there is
// no memory.

#include <gtest/gtest.h>
#include <sorvane/svsignalhandlermanager.h>

#include <array>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "support/memory_limit.h"
#include "support/standard_library.h"

namespace {

using Sorvane::SVException;
using Sorvane::SVExceptionMessage;
using Sorvane::svexceptiontype;
using Sorvane::SVObject;

static_assert(Sorvane::svexceptionOperatingSystemCallFailed == 4);
static_assert(Sorvane::svexceptionAllocationFailed == 5);
static_assert(Sorvane::svexceptionIteratorMisused == 12);
static_assert(Sorvane::svexceptionInternalTableError == 20);

static_assert(std::is_nothrow_constructible_v<SVException, const char*, const char*, unsigned int,
                                              svexceptiontype, int>);
static_assert(std::is_nothrow_copy_constructible_v<SVException>);
static_assert(std::is_nothrow_copy_assignable_v<SVException>);
static_assert(
    std::is_same_v<decltype(std::declval<const SVException>().getMessage()), const char*>);
static_assert(std::is_same_v<decltype(std::declval<const SVException>().getFile()), const char*>);
static_assert(std::is_same_v<decltype(std::declval<const SVException>().getLine()), unsigned int>);
static_assert(
    std::is_same_v<decltype(std::declval<const SVException>().getType()), svexceptiontype>);
static_assert(std::is_same_v<decltype(std::declval<const SVException>().getCode()), int>);

// The longest texts that the library itself throws.
constexpr const char* message = "installHandlerInSystem caught an error from sigaction.";
constexpr const char* file = "libsrc/include/../datastructures/svhashtable";
constexpr unsigned int line = 346;
constexpr auto type = Sorvane::svexceptionOperatingSystemCallFailed;
constexpr int code = 22;

[[noreturn]] void throwOne() {
    throw SVException(message, file, line, type, code);
}

bool numbersWholeQ(const SVException& exception) {
    return exception.getLine() == line && exception.getType() == type &&
           exception.getCode() == code;
}

bool wholeQ(const SVException& exception) {
    return std::strcmp(exception.getMessage(), message) == 0 &&
           std::strcmp(exception.getFile(), file) == 0 && numbersWholeQ(exception);
}

bool startsWithQ(const char* text, const char* beginning) {
    return std::strncmp(text, beginning, std::strlen(beginning)) == 0;
}

void expectWhole(const SVException& exception) {
    EXPECT_STREQ(exception.getMessage(), message);
    EXPECT_STREQ(exception.getFile(), file);
    EXPECT_TRUE(numbersWholeQ(exception));
}

// ---- With memory -----------------------------------------------------------------------------

TEST(SVException, CarriesItsArgumentsInTheirOrder) {
    const SVException exception("message", "file", 1, Sorvane::svexceptionIteratorMisused, 2);
    EXPECT_STREQ(exception.getMessage(), "message");
    EXPECT_STREQ(exception.getFile(), "file");
    EXPECT_EQ(exception.getLine(), 1U);
    EXPECT_EQ(exception.getType(), Sorvane::svexceptionIteratorMisused);
    EXPECT_EQ(exception.getCode(), 2);
}

TEST(SVException, CarriesNumbersOfAnySize) {
    const SVException exception("", "", std::numeric_limits<unsigned int>::max(),
                                Sorvane::svexceptionAllocationFailed,
                                std::numeric_limits<int>::min());
    EXPECT_EQ(exception.getLine(), std::numeric_limits<unsigned int>::max());
    EXPECT_EQ(exception.getCode(), std::numeric_limits<int>::min());
    EXPECT_EQ(SVException("", "", 0, type, -1).getCode(), -1);
}

TEST(SVException, CarriesTextsOfAnyLength) {
    const std::string longMessage(10000, 'm');
    const std::string longFile(20000, 'f');
    const SVException exception(longMessage.c_str(), longFile.c_str(), line, type, code);
    EXPECT_EQ(exception.getMessage(), longMessage);
    EXPECT_EQ(exception.getFile(), longFile);
}

TEST(SVException, CopiesItsTexts) {
    char changing[] = "a message that is too long for a string to hold it in itself";
    const std::string before = changing;
    const SVException exception(changing, changing, line, type, code);
    changing[0] = 'X';
    EXPECT_EQ(exception.getMessage(), before);
    EXPECT_EQ(exception.getFile(), before);
}

TEST(SVException, TakesNullForAnEmptyText) {
    const SVException exception(nullptr, nullptr, line, type, code);
    EXPECT_STREQ(exception.getMessage(), "");
    EXPECT_STREQ(exception.getFile(), "");
}

TEST(SVException, ACopyOutlivesTheOriginal) {
    auto original = std::make_unique<SVException>(message, file, line, type, code);
    const SVException copy(*original);
    original.reset();
    expectWhole(copy);
}

TEST(SVException, AssignmentReplacesEverything) {
    SVException target("another message, of some length, to be replaced", "b", 1,
                       Sorvane::svexceptionIteratorMisused, 2);
    target = SVException(message, file, line, type, code);
    expectWhole(target);
}

TEST(SVException, AssignmentToItselfChangesNothing) {
    SVException exception(message, file, line, type, code);
    const SVException& same = exception;
    exception = same;
    expectWhole(exception);
}

TEST(SVException, IsCaughtByValueOfItsType) {
    try {
        throwOne();
    } catch (const SVException& exception) {
        expectWhole(exception);
        return;
    }
    FAIL() << "not caught";
}

TEST(SVException, IsCaughtAsAnSVObjectByThoseWhoDoNotKnowIt) {
    try {
        throwOne();
    } catch (const SVObject& object) {
        const auto* const exception = dynamic_cast<const SVException*>(&object);
        ASSERT_NE(exception, nullptr);
        expectWhole(*exception);
        return;
    }
    FAIL() << "not caught";
}

TEST(SVException, PassesThroughFramesUnchanged) {
    try {
        try {
            throwOne();
        } catch (const SVObject&) {
            throw;
        }
    } catch (const SVException& exception) {
        expectWhole(exception);
    }
}

TEST(SVExceptionMessage, HoldsItsTextsAndCopiesThem) {
    SVExceptionMessage texts("first", "second");
    const SVExceptionMessage copy(texts);
    texts = SVExceptionMessage(message, file);
    EXPECT_STREQ(texts.getMessage(), message);
    EXPECT_STREQ(texts.getFile(), file);
    EXPECT_STREQ(copy.getMessage(), "first");
    EXPECT_STREQ(copy.getFile(), "second");
}

// ---- Without memory --------------------------------------------------------------------------

class SVExceptionWithoutMemory : public testing::Test {
protected:
    void SetUp() override { SKIP_WITHOUT_MEMORY_LIMIT(); }
};

// Whether what arrives is an SVException, and passes the test.
template <typename Throw, typename Judge>
bool arrivesQ(Throw throwIt, Judge judge) {
    try {
        throwIt();
    } catch (const SVException& exception) {
        return judge(exception);
    } catch (...) {
    }
    return false;
}

TEST_F(SVExceptionWithoutMemory, ArrivesWhole) {
    bool whole = false;
    {
        const MemoryLimit limit;
        whole = arrivesQ(throwOne, wholeQ);
    }
    EXPECT_TRUE(whole);
}

TEST_F(SVExceptionWithoutMemory, ArrivesWholeHoweverOftenOneAfterTheOther) {
    constexpr int times = 10000;
    int whole = 0;
    {
        const MemoryLimit limit;
        for (int i = 0; i < times; ++i) {
            whole += arrivesQ(throwOne, wholeQ) ? 1 : 0;
        }
    }
    EXPECT_EQ(whole, times);
}

TEST_F(SVExceptionWithoutMemory, ArrivesWholeAgainAfterItWasCopied) {
    bool whole = false;
    {
        const MemoryLimit limit;
        whole = arrivesQ([] { throwOne(); },
                         [](const SVException& exception) {
                             const SVException copy(exception);
                             SVException assigned("", "", 0, type, 0);
                             assigned = copy;
                             return wholeQ(copy) && wholeQ(assigned);
                         });
    }
    EXPECT_TRUE(whole);
}

// More than the reserve can serve at once: some texts are cut, but what arrives is never anything
// else; and when the many are gone, the next one is whole.
TEST_F(SVExceptionWithoutMemory, ArrivesAlsoWhenTheReserveIsUsedUp) {
    SKIP_WITHOUT_RESERVE_FOR_EXCEPTIONS();
    constexpr std::size_t count = 40;
    std::array<std::exception_ptr, count> alive;
    std::size_t arrived = 0;
    std::size_t whole = 0;
    bool firstWhole = false;
    bool wholeAfterwards = false;
    {
        const MemoryLimit limit;
        for (std::exception_ptr& kept : alive) {
            const bool arrivedNow = arrivesQ(throwOne, [&](const SVException& exception) {
                kept = std::current_exception();
                whole += wholeQ(exception) ? 1U : 0U;
                firstWhole = firstWhole || wholeQ(exception);
                return numbersWholeQ(exception) && startsWithQ(message, exception.getMessage()) &&
                       startsWithQ(file, exception.getFile());
            });
            arrived += arrivedNow ? 1U : 0U;
        }
        alive.fill(nullptr);
        wholeAfterwards = arrivesQ(throwOne, wholeQ);
    }
    EXPECT_EQ(arrived, count);
    EXPECT_TRUE(firstWhole);
    EXPECT_GE(whole, 2U) << "two at once are nothing unusual";
    EXPECT_LT(whole, count) << "the reserve was not used up, so this test has tested nothing";
    EXPECT_TRUE(wholeAfterwards);
}

TEST_F(SVExceptionWithoutMemory, OutlivesTheShortageOfMemory) {
    std::exception_ptr kept;
    {
        const MemoryLimit limit;
        arrivesQ(throwOne, [&](const SVException&) {
            kept = std::current_exception();
            return true;
        });
    }
    ASSERT_NE(kept, nullptr);
    try {
        std::rethrow_exception(kept);
    } catch (const SVException& exception) {
        expectWhole(exception);
    }
}

TEST_F(SVExceptionWithoutMemory, CutsATextThatNothingHasRoomFor) {
    SKIP_WITHOUT_RESERVE_FOR_EXCEPTIONS();
    const std::string longText(5000, 'x');
    bool arrived = false;
    std::size_t length = 0;
    {
        const MemoryLimit limit;
        arrived = arrivesQ([&] { throw SVException(longText.c_str(), file, line, type, code); },
                           [&](const SVException& exception) {
                               length = std::strlen(exception.getMessage());
                               return numbersWholeQ(exception) &&
                                      startsWithQ(longText.c_str(), exception.getMessage()) &&
                                      std::strcmp(exception.getFile(), file) == 0;
                           });
    }
    EXPECT_TRUE(arrived);
    EXPECT_GT(length, 0U);
    EXPECT_LT(length, longText.size());
}

TEST_F(SVExceptionWithoutMemory, ArrivesWholeOnSeveralThreadsAtOnce) {
    SKIP_WITHOUT_RESERVE_FOR_EXCEPTIONS();
    constexpr int times = 5000;
    struct Worker {
        std::binary_semaphore start{0};
        std::binary_semaphore done{0};
        int whole = 0;

        void run() {
            start.acquire();
            for (int i = 0; i < times; ++i) {
                whole += arrivesQ(throwOne, wholeQ) ? 1 : 0;
            }
            done.release();
        }
    };
    std::array<Worker, 3> workers;
    std::array<std::thread, 3> threads;
    for (std::size_t i = 0; i < workers.size(); ++i) {
        threads[i] = std::thread(&Worker::run, &workers[i]);
    }
    {
        const MemoryLimit limit;
        for (Worker& worker : workers) {
            worker.start.release();
        }
        for (Worker& worker : workers) {
            worker.done.acquire();
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const Worker& worker : workers) {
        EXPECT_EQ(worker.whole, times);
    }
}

}  // namespace
