#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "server_fixture.h"

namespace {

using namespace gaktest;
using testing::ElementsAre;

using SessionListTest = ServerTest;

TEST_F(SessionListTest, CloseSomeSessionClosesAndUnlists)
{
    Create();
    const Fd worker = ConnectAs(1, 7);
    void* const session = server_.GetPpcSession(1, 7);
    // The receive thread ends by it and finds the session closed: kept out of the lines.
    log_.Clear();
    server_.CloseSomeSession(session);
    EXPECT_TRUE(ExpectEof(worker, 10s));
    EXPECT_THAT(LinesOfFunction("RemoveFromPpcSessionList"),
                ElementsAre(Plain("RemoveFromPpcSessionList", "[GAKPPCSER] CloseSomeSession enter [sessionSize:1]"),
                            Plain("RemoveFromPpcSessionList", "[GAKPPCSER] CloseSomeSession exit [sessionSize:0]")));
    EXPECT_EQ(server_.GetPpcSession(1, 7), session);
}

TEST_F(SessionListTest, SecondCloseIsLoggedAndClosesNothing)
{
    Create();
    const Fd worker = ConnectAs(1, 7);
    void* const session = server_.GetPpcSession(1, 7);
    server_.CloseSomeSession(session);
    ASSERT_TRUE(WaitForExits(1));
    const Baseline before;
    log_.Clear();
    server_.CloseSomeSession(session);
    EXPECT_THAT(ServerLines(log_), ElementsAre(WithStatus(0x1093041, "CloseSomeSession",
                                                          "[GAKPPCSER] CloseSomeSession ppc session failed")));
    EXPECT_TRUE(before.Returned());
}

TEST_F(SessionListTest, SessionWhoseCloseFailsStaysListed)
{
    Create();
    const Fd worker = ConnectAs(1, 7);
    closes_.FailFrom(1, PPC_ERR_INVALID_VALUE, 0);
    log_.Clear();
    server_.CloseSomeSession(server_.GetPpcSession(1, 7));
    EXPECT_THAT(
        LinesOfFunction("CloseSomeSession"),
        ElementsAre(WithStatus(0x1093041, "CloseSomeSession", "[GAKPPCSER] CloseSomeSession ppc session failed")));
    closes_.Reset();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(log_.Count("Destory ppc session serverId_"), 1u);
}

TEST_F(SessionListTest, UnknownSessionIsNotTakenOffTheList)
{
    Create();
    const Fd worker = Connect();
    log_.Clear();
    int foreign = 0;
    server_.RemoveFromPpcSessionList(&foreign);
    EXPECT_THAT(ServerLines(log_),
                ElementsAre(Plain("RemoveFromPpcSessionList", "[GAKPPCSER] CloseSomeSession enter [sessionSize:1]"),
                            WithStatus(0x1093041, "RemoveFromPpcSessionList",
                                       "[GAKPPCSER] CloseSomeSession session is not exist")));
    EXPECT_EQ(closes_.Count(), 0u);
}

TEST_F(SessionListTest, CloseSomeSessionAfterDestroyClosesNothing)
{
    Create();
    const Fd worker = ConnectAs(1, 7);
    void* const session = server_.GetPpcSession(1, 7);
    EXPECT_EQ(server_.Destroy(), kOk);
    const Baseline before;
    log_.Clear();
    server_.CloseSomeSession(session);
    EXPECT_THAT(ServerLines(log_), ElementsAre(WithStatus(0x1093041, "CloseSomeSession",
                                                          "[GAKPPCSER] CloseSomeSession ppc session failed")));
    EXPECT_TRUE(before.Returned());
}

// The accept thread is held between the start of the receive thread and the listing of the session.
TEST_F(SessionListTest, SessionThatClosesBeforeItIsListedIsClosedOnce)
{
    Create();
    {
        CountingHook<calls::StdThreadCreate> starts;
        starts.OnCall([this](uint64_t, pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*), void* arg) {
            const int result = CountingHook<calls::StdThreadCreate>::Real(thread, attr, body, arg);
            EXPECT_TRUE(log_.WaitFor("CloseSomeSession session is not exist", 10s));
            return std::optional<int>(result);
        });
        const uint64_t before = accepts_.Count();
        Dial().Reset();
        EXPECT_TRUE(WaitUntil([&] { return accepts_.Count() > before; }, 10s));
    }
    EXPECT_THAT(LinesOfFunction("RemoveFromPpcSessionList"),
                ElementsAre(Plain("RemoveFromPpcSessionList", "[GAKPPCSER] CloseSomeSession enter [sessionSize:0]"),
                            WithStatus(0x1093041, "RemoveFromPpcSessionList",
                                       "[GAKPPCSER] CloseSomeSession session is not exist")));
    log_.Clear();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(closes_.Count(), 1u);
    EXPECT_EQ(log_.Count("Destory ppc session"), 0u);
}

}  // namespace
