#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <fstream>
#include <optional>

#include "driver_test.h"

namespace {

using namespace gaktest;
using testing::ElementsAre;
using testing::IsEmpty;

const char kHome[] = "/home/KrovaUser";
const std::string kDir = "/home/KrovaUser/qel_ppc/";
const std::string kPathFailure = "Ppc set path sprintf_s failed";

std::string CreateFailure(int error)
{
    return std::string("create ppc dir failed, ") + strerror(error) + " (errno:" + std::to_string(error) + ")";
}

// The directory is not prepared at first.
class PpcPathTest : public testing::Test {
protected:
    struct Result {
        int code;
        std::string path;
        uint32_t length;
    };

    static Result SetPath(int isServer, int serverId)
    {
        sockaddr_un addr{};
        uint32_t length = 0xABCD;
        const int code = drvPpcSetSockPath(&addr, isServer, serverId, &length);
        return {code, addr.sun_path, length};
    }

    gaktest::LogCapture log_;
};

bool IsDirectory(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

mode_t ModeOf(const std::string& path)
{
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

// ---- Preparing the directory ----

TEST_F(PpcPathTest, InitCreatesTheDirectory)
{
    CountingHook<calls::Mkdir> mkdirCalls;
    std::string path;
    mode_t mode = 0;
    mkdirCalls.OnCall([&](uint64_t, const char* wanted, mode_t wantedMode) -> std::optional<int> {
        path = wanted;
        mode = wantedMode;
        return std::nullopt;
    });
    EXPECT_EQ(ppcInit(), 0);
    EXPECT_EQ(path, kDir);
    EXPECT_EQ(mode, 0350u);
    EXPECT_TRUE(IsDirectory(kDir));
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(PpcPathTest, ModeIs0350LessTheUmask)
{
    umask(0);
    ASSERT_EQ(drvPpcCreateDir(), 0);
    EXPECT_EQ(ModeOf(kDir), 0350u);
    ASSERT_EQ(rmdir(kDir.c_str()), 0);
    umask(0140);
    ASSERT_EQ(drvPpcCreateDir(), 0);
    EXPECT_EQ(ModeOf(kDir), 0210u);
}

TEST_F(PpcPathTest, InitWithTheDirectoryPresentDoesNotCallMkdir)
{
    ASSERT_EQ(mkdir(kDir.c_str(), 0700), 0);
    CountingHook<calls::Mkdir> mkdirCalls;
    CountingHook<calls::Access> accessCalls;
    std::string path;
    int mode = -1;
    accessCalls.OnCall([&](uint64_t, const char* wanted, int wantedMode) -> std::optional<int> {
        path = wanted;
        mode = wantedMode;
        return std::nullopt;
    });
    EXPECT_EQ(ppcInit(), 0);
    EXPECT_EQ(path, kDir);
    EXPECT_EQ(mode, F_OK);
    EXPECT_EQ(mkdirCalls.Count(), 0u);
    EXPECT_EQ(ModeOf(kDir), 0700u);
    EXPECT_EQ(SetPath(1, 5).code, PPC_OK);
}

TEST_F(PpcPathTest, InitRepeatedIsHarmless)
{
    EXPECT_EQ(ppcInit(), 0);
    EXPECT_EQ(ppcInit(), 0);
    EXPECT_EQ(drvPpcCreateDir(), 0);
    EXPECT_EQ(SetPath(1, 5).code, PPC_OK);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

// access reports a plain file's path with a trailing slash as absent; mkdir then finds the name taken.
TEST_F(PpcPathTest, PlainFileOfThatNameCountsAsPresent)
{
    std::ofstream("/home/KrovaUser/qel_ppc") << "x";
    EXPECT_EQ(ppcInit(), 0);
    EXPECT_EQ(SetPath(1, 5).code, PPC_OK);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(PpcPathTest, DirectoryThatAppearsBetweenAccessAndMkdirCountsAsPresent)
{
    CountingHook<calls::Mkdir> mkdirCalls;
    mkdirCalls.OnCall([](uint64_t, const char* path, mode_t mode) -> std::optional<int> {
        mkdir(path, mode);
        return std::nullopt;
    });
    EXPECT_EQ(ppcInit(), 0);
    EXPECT_EQ(SetPath(1, 5).code, PPC_OK);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(PpcPathTest, MissingParentFailsWithOneErrorLine)
{
    ASSERT_EQ(rmdir(kHome), 0);
    EXPECT_EQ(ppcInit(), -1);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcCreateDir", CreateFailure(ENOENT))));
    EXPECT_FALSE(IsDirectory(kHome));
}

TEST_F(PpcPathTest, FailedMkdirIsMinusOneAndLeavesNoDirectoryText)
{
    CountingHook<calls::Mkdir> mkdirCalls;
    mkdirCalls.FailCall(1, -1, EACCES);
    EXPECT_EQ(drvPpcCreateDir(), -1);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcCreateDir", CreateFailure(EACCES))));
    EXPECT_EQ(SetPath(1, 5).code, PPC_ERR_SOCKET_PATH);
    EXPECT_EQ(drvPpcCreateDir(), 0);
    EXPECT_EQ(SetPath(1, 5).code, PPC_OK);
}

TEST_F(PpcPathTest, LaterFailureKeepsTheDirectoryText)
{
    ASSERT_EQ(ppcInit(), 0);
    ASSERT_EQ(rmdir(kDir.c_str()), 0);
    ASSERT_EQ(rmdir(kHome), 0);
    EXPECT_EQ(ppcInit(), -1);
    EXPECT_EQ(SetPath(1, 5).code, PPC_OK);
}

// ---- Paths ----

TEST_F(PpcPathTest, PathIsDirectoryRoleAndDecimalId)
{
    struct {
        int isServer;
        int serverId;
        std::string name;
    } const cases[] = {{1, 19280, "sock_server_19280"},
                       {1, 0, "sock_server_0"},
                       {1, -7, "sock_server_-7"},
                       {1, 2147483647, "sock_server_2147483647"},
                       {1, -2147483647 - 1, "sock_server_-2147483648"},
                       {0, 19280, "sock_client_19280"},
                       {0, 0, "sock_client_0"}};
    ASSERT_EQ(ppcInit(), 0);
    for (const auto& wanted : cases) {
        const Result result = SetPath(wanted.isServer, wanted.serverId);
        EXPECT_EQ(result.code, PPC_OK);
        EXPECT_EQ(result.path, kDir + wanted.name);
        EXPECT_EQ(result.length, 2 + kDir.size() + wanted.name.size());
    }
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(PpcPathTest, AnyNonZeroIsServerSelectsTheServerRole)
{
    ASSERT_EQ(ppcInit(), 0);
    for (const int isServer : {2, -1, 256, -2147483647 - 1}) {
        EXPECT_EQ(SetPath(isServer, 1).path, kDir + "sock_server_1") << isServer;
    }
}

TEST_F(PpcPathTest, AddressLengthIsFamilyAndPathWithoutItsEnd)
{
    ASSERT_EQ(ppcInit(), 0);
    EXPECT_EQ(SetPath(1, 19280).length, 43u);
}

TEST_F(PpcPathTest, FamilyStaysTheCallers)
{
    ASSERT_EQ(ppcInit(), 0);
    sockaddr_un addr{};
    addr.sun_family = 0x5A5A;
    uint32_t length = 0;
    EXPECT_EQ(drvPpcSetSockPath(&addr, 1, 1, &length), PPC_OK);
    EXPECT_EQ(addr.sun_family, 0x5A5A);
}

TEST_F(PpcPathTest, NullArgumentsGive3)
{
    ASSERT_EQ(ppcInit(), 0);
    sockaddr_un addr{};
    uint32_t length = 9;
    const auto line = ErrorLine("drvPpcSetSockPath", "invalid input, null ptr");
    EXPECT_EQ(drvPpcSetSockPath(nullptr, 1, 1, &length), PPC_ERR_INVALID_VALUE);
    EXPECT_EQ(drvPpcSetSockPath(&addr, 1, 1, nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_EQ(drvPpcSetSockPath(nullptr, 1, 1, nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(), ElementsAre(line, line, line));
    EXPECT_EQ(length, 9u);
    EXPECT_STREQ(addr.sun_path, "");
}

TEST_F(PpcPathTest, WithoutInitThePathGives24)
{
    const Result result = SetPath(1, 1);
    EXPECT_EQ(result.code, PPC_ERR_SOCKET_PATH);
    EXPECT_EQ(result.length, 0u);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSetSockPath", kPathFailure)));
}

struct FormatterCall {
    size_t destMax = 0;
    std::string format;
};
FormatterCall formatterCall;

int FailingFormatter(char*, size_t destMax, const char* format, ...)
{
    formatterCall = {destMax, format};
    return -1;
}

TEST_F(PpcPathTest, FormatterFailureGives24)
{
    ASSERT_EQ(ppcInit(), 0);
    const gaktest::ImportHook formatter("sprintf_s", reinterpret_cast<void*>(&FailingFormatter));
    const Result result = SetPath(1, 1);
    EXPECT_EQ(result.code, PPC_ERR_SOCKET_PATH);
    EXPECT_EQ(result.length, 0u);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSetSockPath", kPathFailure)));
    EXPECT_EQ(formatterCall.destMax, 108u);
    EXPECT_EQ(formatterCall.format, "%s%s%d");
}

// ---- The rest of the driver's frame ----

TEST_F(PpcPathTest, InitAndUninitOfTheDriverDoNothing)
{
    EXPECT_EQ(drvPpcInit(), 0);
    EXPECT_EQ(drvPpcUninit(), 0);
    EXPECT_EQ(SetPath(1, 1).code, PPC_ERR_SOCKET_PATH) << "only the directory functions prepare the path";
    EXPECT_FALSE(IsDirectory(kDir));
}

TEST_F(PpcPathTest, ErrorsAreWrittenWithoutAskingForTheLevel)
{
    log_.SetMinimumLevel(99);
    EXPECT_EQ(drvPpcSetSockPath(nullptr, 1, 1, nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSetSockPath", "invalid input, null ptr")));
    EXPECT_EQ(log_.CheckLogLevelCalls(), 0u);
}

TEST_F(PpcPathTest, WarningsAreWrittenAtTheirLevelOnly)
{
    log_.SetMinimumLevel(3);
    EXPECT_EQ(drvPpcSessionAccept(nullptr, nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(), IsEmpty());
    EXPECT_EQ(log_.CheckLogLevelCalls(2), 1u);
    EXPECT_EQ(log_.CheckLogLevelCalls(), 1u);
    log_.SetMinimumLevel(2);
    EXPECT_EQ(drvPpcSessionAccept(nullptr, nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_EQ(log_.Lines().size(), 1u);
}

TEST_F(PpcPathTest, InformationIsWrittenAtItsLevelOnly)
{
    ASSERT_EQ(ppcInit(), 0);
    log_.SetMinimumLevel(2);
    {
        const Endpoint endpoint;
    }
    EXPECT_THAT(log_.Lines(), IsEmpty());
    EXPECT_EQ(log_.CheckLogLevelCalls(1), 2u);
    EXPECT_EQ(log_.CheckLogLevelCalls(), 2u);
    log_.SetMinimumLevel(1);
    {
        const Endpoint endpoint;
    }
    EXPECT_EQ(log_.Lines().size(), 2u);
}

int AnswerTwo(int, int)
{
    return 2;
}

TEST_F(PpcPathTest, OnlyTheAnswerOneTurnsALevelOn)
{
    ASSERT_EQ(ppcInit(), 0);
    const gaktest::ImportHook check("CheckLogLevel", reinterpret_cast<void*>(&AnswerTwo));
    {
        const Endpoint endpoint;
    }
    EXPECT_EQ(drvPpcSessionAccept(nullptr, nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

}  // namespace
