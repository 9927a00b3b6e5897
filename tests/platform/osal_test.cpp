#include "osal.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "process.h"

namespace {

using namespace std::chrono_literals;
using gaktest::ChildProcess;

TEST(OsalTest, MainThreadHasTheProcessId)
{
    EXPECT_EQ(osalGetTid(), getpid());
}

TEST(OsalTest, EveryThreadHasTheKernelsIdOfItsOwn)
{
    int inThread = 0;
    long kernel = 0;
    std::thread([&] {
        inThread = osalGetTid();
        kernel = syscall(SYS_gettid);
    }).join();
    EXPECT_EQ(inThread, kernel);
    EXPECT_NE(inThread, osalGetTid());
}

TEST(OsalTest, ForkedChildHasAnIdOfItsOwn)
{
    const int parent = osalGetTid();
    ChildProcess child([parent] { return osalGetTid() == getpid() && osalGetTid() != parent ? 0 : 1; });
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(0));
}

}  // namespace
