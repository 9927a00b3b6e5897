#ifndef GAKPPC_TAP_FIXTURE_H
#define GAKPPC_TAP_FIXTURE_H

#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "tool.h"

namespace gaktest {

inline const std::string kSock = "/home/KrovaUser/qel_ppc/sock_server_19280";
inline const std::string kSavedSock = kSock + ".tap";

inline struct stat FileAt(const std::string& path)
{
    struct stat file {};
    lstat(path.c_str(), &file);
    return file;
}

// A daemon of the test, a tap in front of it, and workers that find the tap.
class TapTest : public testing::Test {
protected:
    void Start(std::vector<std::string> arguments = {})
    {
        daemonFile_ = FileAt(access(kSavedSock.c_str(), F_OK) == 0 ? kSavedSock : kSock);
        arguments.insert(arguments.begin(), "tap");
        tap_ = std::make_unique<Tool>(kGakppctl, arguments);
        ASSERT_TRUE(tap_->WaitForErr("in place"));
        ASSERT_NE(FileAt(kSock).st_ino, daemonFile_.st_ino);
    }

    void Connect()
    {
        worker_ = RawConnect(kServer);
        ASSERT_TRUE(worker_.valid());
        daemon_ = RawAccept(listener_, kLimit);
        ASSERT_TRUE(daemon_.valid());
    }

    void Disconnect()
    {
        worker_.Reset();
        EXPECT_TRUE(ExpectEof(daemon_, kLimit));
        daemon_.Reset();
    }

    bool SocketIsRestored() const
    {
        return FileAt(kSock).st_ino == daemonFile_.st_ino && access(kSavedSock.c_str(), F_OK) == -1;
    }

    Fd listener_ = RawListen(kServer);
    struct stat daemonFile_ {};
    std::unique_ptr<Tool> tap_;
    Fd worker_;
    Fd daemon_;
};

}  // namespace gaktest

#endif
