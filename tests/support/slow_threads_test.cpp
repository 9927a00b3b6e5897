// Linked instead of preloaded.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <future>
#include <string>
#include <vector>

namespace {

long TimesThisThreadSlept()
{
    std::ifstream in("/proc/thread-self/status");
    const std::string key = "voluntary_ctxt_switches:";
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(key, 0) == 0) {
            return std::stol(line.substr(key.size()));
        }
    }
    return -1;
}

// None of these calls waits by itself.
long TimesSleptInFiftyCalls()
{
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const long before = TimesThisThreadSlept();
    for (int i = 0; i < 25; ++i) {
        char byte = static_cast<char>(i);
        EXPECT_EQ(send(ends[0], &byte, 1, 0), 1);
        EXPECT_EQ(recv(ends[1], &byte, 1, 0), 1);
        EXPECT_EQ(byte, i);
    }
    const long slept = TimesThisThreadSlept() - before;
    EXPECT_EQ(recv(ends[0], ends, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    close(ends[0]);
    close(ends[1]);
    return slept;
}

TEST(SlowThreadsTest, SomeThreadsWaitAndTheOthersDoNot)
{
    std::vector<std::future<long>> threads;
    for (int i = 0; i < 40; ++i) {
        threads.push_back(std::async(std::launch::async, TimesSleptInFiftyCalls));
    }
    int slow = 0;
    int quick = 0;
    for (auto& thread : threads) {
        const long slept = thread.get();
        slow += slept > 5 ? 1 : 0;
        quick += slept <= 5 ? 1 : 0;
    }
    EXPECT_GT(slow, 0);
    EXPECT_GT(quick, 0);
}

}  // namespace
