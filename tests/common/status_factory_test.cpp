#include "status_factory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <map>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fault.h"
#include "held_mutexes.h"
#include "process.h"
#include "status_table.h"
#include "status_texts.h"

namespace {

using namespace std::chrono_literals;
using gaktest::ChildProcess;
using gaktest::CountingHook;
using qel::StatusFactory;
namespace calls = gaktest::calls;

constexpr uint32_t kUnknown = 0x1013000;
constexpr uint32_t kForeign = 0x2013001;  // a number that the table will never hold
constexpr uint32_t kRunningOk = 0x1011000;

StatusFactory& Factory()
{
    return StatusFactory::GetInstance();
}

std::vector<StatusTextRow> LibraryTable()
{
    return {
#define ROW(status, text) {status, qel::StatusLevel(status), text},
        GAKPPC_STATUS_TABLE(ROW)
#undef ROW
    };
}

// What the registry answers while static objects are constructed.
const std::string textAtLoadTime = StatusFactory::GetErrCodeDesc(kRunningOk);

TEST(StatusFactory, KnowsTheTextOfEveryNumber)
{
    for (const StatusTextRow& row : kStatusTexts) {
        EXPECT_EQ(Factory().GetErrDesc(row.status), row.text) << std::hex << row.status;
    }
}

// Every number that the fields allow with some room around them is asked.
TEST(StatusFactory, HoldsExactly251EntriesAfterLoading)
{
    EXPECT_EQ(std::size(kStatusTexts), 251U);
    size_t known = 0;
    for (uint32_t module = 0; module < 0x20; ++module) {
        for (uint32_t level = 0; level < 0x10; ++level) {
            for (uint32_t number = 0; number < 0x180; ++number) {
                const uint32_t status = 0x1000000 | module << 16 | level << 12 | number;
                known += Factory().GetErrDesc(status).empty() ? 0 : 1;
            }
        }
    }
    EXPECT_EQ(known, 251U);
}

TEST(StatusFactory, KnowsItsTableAtLoadTime)
{
    EXPECT_EQ(textAtLoadTime, "running ok");
}

TEST(StatusFactory, TableStandsInRegistrationOrder)
{
    const std::vector<StatusTextRow> table = LibraryTable();
    ASSERT_EQ(table.size(), std::size(kStatusTexts));
    for (size_t row = 0; row < table.size(); ++row) {
        EXPECT_EQ(table[row].status, kStatusTexts[row].status) << "row " << row;
        EXPECT_STREQ(table[row].text, kStatusTexts[row].text) << "row " << row;
    }
}

TEST(StatusFactory, LevelFieldOfEveryNumberIsItsLevel)
{
    for (const StatusTextRow& row : LibraryTable()) {
        const auto wanted = std::find_if(std::begin(kStatusTexts), std::end(kStatusTexts),
                                         [&](const StatusTextRow& other) { return other.status == row.status; });
        ASSERT_NE(wanted, std::end(kStatusTexts)) << std::hex << row.status;
        EXPECT_EQ(row.level, wanted->level) << std::hex << row.status;
    }
}

TEST(StatusFactory, RunningOkIsInfoAndCreateFailIsError)
{
    EXPECT_EQ(qel::StatusLevel(kRunningOk), 1U);
    EXPECT_EQ(qel::StatusLevel(0x1093031), 3U);
}

TEST(StatusFactory, NumberFieldIsUniqueWhateverTheModule)
{
    std::set<uint32_t> numbers;
    for (const StatusTextRow& row : LibraryTable()) {
        EXPECT_TRUE(numbers.insert(row.status & 0xFFF).second) << std::hex << row.status;
        EXPECT_LE(row.status & 0xFFF, 0x0FAU);
        EXPECT_EQ(row.status >> 24, 0x01U);
    }
}

TEST(StatusFactory, EightTextsStandUnderTwoNumbers)
{
    const std::map<std::string, std::set<uint32_t>> wanted = {
        {"hdc server destroy error", {0x1033014, 0x1133084}},
        {"hdc send message failed", {0x1033019, 0x111306A}},
        {"Initialization of inotify failed", {0x107308F, 0x11630BD}},
        {"Close inotifyFd failed", {0x1073090, 0x11630BF}},
        {"Add watch of inotify failed", {0x1073091, 0x11630BE}},
        {"mempool not exist", {0x1083053, 0x1083054}},
        {"md5 of recv msg is wrong", {0x11230C8, 0x11230C9}},
        {"memory copy failed", {0x11230CB, 0x11730F0}},
    };
    std::map<std::string, std::set<uint32_t>> found;
    for (const StatusTextRow& row : LibraryTable()) {
        found[Factory().GetErrDesc(row.status)].insert(row.status);
    }
    for (auto entry = found.begin(); entry != found.end();) {
        entry = entry->second.size() == 1 ? found.erase(entry) : std::next(entry);
    }
    EXPECT_EQ(found, wanted);
}

TEST(StatusFactory, NamedConstantsAreTheNumbersOfTheirTexts)
{
    const struct {
        uint32_t constant;
        uint32_t status;
    } rows[] = {
        {qel::kStatusOk, 0x1011000},
        {qel::kStatusWarning, 0x1012003},
        {qel::kStatusMemoryExhausted, 0x1013007},
        {qel::kStatusIntegerReversed, 0x1013008},
        {qel::kStatusDriverError, 0x1033022},
        {qel::kStatusPpcInitFail, 0x1093030},
        {qel::kStatusPpcCreateFail, 0x1093031},
        {qel::kStatusPpcDestroyFail, 0x1093032},
        {qel::kStatusPpcMsgBufferFail, 0x1093034},
        {qel::kStatusPpcConnectFail, 0x1093035},
        {qel::kStatusPpcNoSession, 0x1093036},
        {qel::kStatusPpcSendRecvFail, 0x1093037},
        {qel::kStatusPpcMsgFreeFail, 0x1093038},
        {qel::kStatusPpcMsgAllocFail, 0x1093039},
        {qel::kStatusPpcLengthMismatch, 0x109303A},
        {qel::kStatusPpcBufferNull, 0x109303B},
        {qel::kStatusPpcClientInvalidParam, 0x109303C},
        {qel::kStatusPpcServerInvalidParam, 0x109303D},
        {qel::kStatusPpcClientNotExpected, 0x109303E},
        {qel::kStatusPpcSocketClosed, 0x109303F},
        {qel::kStatusPpcRecvFail, 0x1093040},
        {qel::kStatusPpcCloseFail, 0x1093041},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.constant, row.status);
    }
}

TEST(StatusFactory, UnregisteredNumberGivesAnEmptyText)
{
    for (const uint32_t status : {kUnknown, 0x0U, 0x1000000U, 0x1018000U, kForeign, 0xFFFFFFFFU}) {
        EXPECT_EQ(Factory().GetErrDesc(status), "") << std::hex << status;
        EXPECT_EQ(StatusFactory::GetErrCodeDesc(status), "") << std::hex << status;
    }
}

TEST(StatusFactory, FirstRegistrationWins)
{
    Factory().RegisterErrorNo(kForeign, "first");
    Factory().RegisterErrorNo(kForeign, "second");
    EXPECT_EQ(Factory().GetErrDesc(kForeign), "first");
}

TEST(StatusFactory, TableTextsCannotBeReplaced)
{
    for (const StatusTextRow& row : kStatusTexts) {
        Factory().RegisterErrorNo(row.status, "another text");
        EXPECT_EQ(Factory().GetErrDesc(row.status), row.text) << std::hex << row.status;
    }
}

TEST(StatusFactory, EmptyTextIsARegistrationToo)
{
    Factory().RegisterErrorNo(kForeign, "");
    Factory().RegisterErrorNo(kForeign, "second");
    EXPECT_EQ(Factory().GetErrDesc(kForeign), "");
}

TEST(StatusFactory, KeepsACopyOfTheText)
{
    std::string text = "a text that is too long to be stored inside its own string";
    const std::string before = text;
    Factory().RegisterErrorNo(kForeign, text);
    text.assign(text.size(), '-');
    EXPECT_EQ(Factory().GetErrDesc(kForeign), before);
}

TEST(StatusFactory, StaticLookUpAsksTheOneInstance)
{
    EXPECT_EQ(&Factory(), &StatusFactory::GetInstance());
    Factory().RegisterErrorNo(kForeign, "mine");
    EXPECT_EQ(StatusFactory::GetErrCodeDesc(kForeign), "mine");
    EXPECT_EQ(StatusFactory::GetErrCodeDesc(kRunningOk), "running ok");
}

TEST(StatusFactory, FailedRegistrationChangesNothing)
{
    Factory().RegisterErrorNo(kForeign + 1, "neighbour");
    {
        CountingHook<calls::OperatorNew> newCalls;
        newCalls.OnCall([](uint64_t, size_t) -> std::optional<void*> { throw std::bad_alloc(); });
        EXPECT_THROW(Factory().RegisterErrorNo(kForeign, "lost"), std::bad_alloc);
    }
    EXPECT_EQ(Factory().GetErrDesc(kForeign), "");
    EXPECT_EQ(Factory().GetErrDesc(kForeign + 1), "neighbour");
    Factory().RegisterErrorNo(kForeign, "second try");
    EXPECT_EQ(Factory().GetErrDesc(kForeign), "second try");
}

TEST(StatusFactory, ThreadsMayRegisterAndLookUpAtOnce)
{
    constexpr uint32_t kThreads = 8;
    constexpr uint32_t kNumbers = 200;
    std::vector<std::thread> threads;
    for (uint32_t thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread] {
            for (uint32_t number = 0; number < kNumbers; ++number) {
                Factory().RegisterErrorNo(kForeign + number, std::to_string(number));
                EXPECT_EQ(Factory().GetErrDesc(kForeign + number), std::to_string(number));
                EXPECT_EQ(Factory().GetErrDesc(kStatusTexts[thread].status), kStatusTexts[thread].text);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// The table is constant. What is registered next to it is not.
TEST(StatusFactory, NumberOfTheTableIsAnsweredWithoutAMutex)
{
    CountingHook<gaktest::calls::MutexLock> locks;
    EXPECT_EQ(Factory().GetErrDesc(kRunningOk), "running ok");
    Factory().RegisterErrorNo(kRunningOk, "another text");
    EXPECT_EQ(locks.Count(), 0U);
    EXPECT_EQ(Factory().GetErrDesc(kForeign), "");
    EXPECT_EQ(locks.Count(), 1U);
}

// The handler is registered before the registry is first used, so it runs after everything that the registry could
// have destroyed. The text is too long to stand inside its own string: it would be freed memory by then.
TEST(StatusFactory, AnswersWhileTheProcessExits)
{
    static const char text[] = "a text that is too long to be stored inside its own string";
    ChildProcess child([]() -> int {
        atexit([] {
            const bool alive = StatusFactory::GetErrCodeDesc(kForeign) == text &&
                               StatusFactory::GetErrCodeDesc(kRunningOk) == "running ok";
            _exit(alive ? 0 : 1);
        });
        Factory().RegisterErrorNo(kForeign, text);
        exit(2);
    });
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(0));
}

TEST(ErrorNoRegisterar, RegistersWhenConstructedAndLeavesItWhenDestroyed)
{
    {
        const qel::ErrorNoRegisterar first(kForeign, "first");
        const qel::ErrorNoRegisterar second(kForeign, "second");
        EXPECT_EQ(Factory().GetErrDesc(kForeign), "first");
    }
    EXPECT_EQ(Factory().GetErrDesc(kForeign), "first");
}

}  // namespace
