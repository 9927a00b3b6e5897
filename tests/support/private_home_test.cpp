// Tests of scripts/private-home. They run inside a private home already (see test_main.cpp), which makes no difference
// to the script.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

struct Result {
    int status;
    std::string output;
};

// Runs a shell command line and returns its exit status and what it wrote to standard output.
Result RunShell(const std::string& command)
{
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return {-1, ""};
    }
    std::string output;
    std::array<char, 256> part{};
    while (fgets(part.data(), part.size(), pipe) != nullptr) {
        output += part.data();
    }
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

Result RunInPrivateHome(const std::string& arguments)
{
    return RunShell(std::string(GAKPPC_PRIVATE_HOME_SCRIPT) + " " + arguments);
}

TEST(PrivateHomeTest, HomeHoldsOnlyAnEmptyUser)
{
    // What the machine's home holds must not show.
    ASSERT_EQ(mkdir("/home/someone", 0755), 0);
    ASSERT_EQ(mkdir("/home/KrovaUser/qel_ppc", 0755), 0);
    const Result result = RunInPrivateHome("find /home");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "/home\n/home/KrovaUser\n");
}

TEST(PrivateHomeTest, WhatTheCommandDoesStaysInside)
{
    EXPECT_EQ(RunInPrivateHome("touch /home/KrovaUser/file").status, 0);
    EXPECT_NE(access("/home/KrovaUser/file", F_OK), 0);
}

TEST(PrivateHomeTest, PassesArgumentsAndExitStatusOn)
{
    const Result result = RunInPrivateHome("sh -c 'echo \"$1|$GAKPPC_PRIVATE_HOME\"; exit 9' name 'two  words'");
    EXPECT_EQ(result.output, "two  words|1\n");
    EXPECT_EQ(result.status, 9);
}

TEST(PrivateHomeTest, CurrentFolderBelowHomeStaysVisible)
{
    fs::create_directories("/home/someone/project/sub");
    std::ofstream("/home/someone/project/file") << "text";
    const Result result = RunShell("cd /home/someone/project && " + std::string(GAKPPC_PRIVATE_HOME_SCRIPT) +
                                   " sh -c 'pwd; cat file; ls'");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "/home/someone/project\ntextfile\nsub\n");
}

TEST(PrivateHomeTest, KeptFolderBelowHomeStaysVisibleAndItsNeighboursDoNot)
{
    fs::create_directories("/home/someone/build/sub");
    fs::create_directories("/home/someone/other");
    const Result result = RunInPrivateHome("--keep /home/someone/build -- sh -c 'cd /home; find someone'");
    EXPECT_EQ(result.output, "someone\nsomeone/build\nsomeone/build/sub\n");
}

TEST(PrivateHomeTest, SocketFolderIsNeverKept)
{
    fs::create_directories("/home/KrovaUser/qel_ppc");
    const Result result = RunShell("cd /home/KrovaUser/qel_ppc && " + std::string(GAKPPC_PRIVATE_HOME_SCRIPT) +
                                   " --keep /home/KrovaUser --keep /home sh -c 'pwd; find /home'");
    EXPECT_EQ(result.output, "/\n/home\n/home/KrovaUser\n");
}

TEST(PrivateHomeTest, CommandInheritsNoDescriptor)
{
    fs::create_directories("/home/someone/build");
    const Result plain = RunShell("ls /proc/self/fd");
    const Result inside = RunInPrivateHome("--keep /home/someone/build ls /proc/self/fd");
    EXPECT_EQ(inside.output, plain.output);
}

TEST(PrivateHomeTest, CheckoutBelowHomeWorks)
{
    fs::create_directories("/home/someone/checkout/scripts");
    fs::copy(GAKPPC_PRIVATE_HOME_SCRIPT, "/home/someone/checkout/scripts/private-home");
    const Result result =
        RunShell("cd / && /home/someone/checkout/scripts/private-home sh -c 'find /home/someone | sort; pwd'");
    EXPECT_EQ(result.output,
              "/home/someone\n/home/someone/checkout\n/home/someone/checkout/scripts\n"
              "/home/someone/checkout/scripts/private-home\n/\n");
}

TEST(PrivateHomeTest, WorksWithoutPrivileges)
{
    if (RunShell("setpriv --reuid 65534 --regid 65534 --clear-groups true 2>/dev/null").status != 0) {
        GTEST_SKIP() << "this user cannot become another one, and has no privileges anyway";
    }
    const Result result =
        RunShell("cd / && setpriv --reuid 65534 --regid 65534 --clear-groups " +
                 std::string(GAKPPC_PRIVATE_HOME_SCRIPT) + " sh -c 'touch /home/KrovaUser/file && find /home'");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "/home\n/home/KrovaUser\n/home/KrovaUser/file\n");
}

TEST(PrivateHomeTest, SaysSoWhereNamespacesAreNotPermitted)
{
    // A user namespace that may hold no further ones, and no privilege to make a mount namespace either.
    const Result result = RunShell(
        "cd / && unshare --user --map-root-user sh -c 'echo 0 > /proc/sys/user/max_user_namespaces;"
        "exec setpriv --bounding-set=-sys_admin --inh-caps=-sys_admin " +
        std::string(GAKPPC_PRIVATE_HOME_SCRIPT) + " true 2>&1'");
    EXPECT_EQ(result.status, 77);
    EXPECT_EQ(result.output, "private-home: mount namespaces are not permitted here\n");
}

TEST(PrivateHomeTest, WithoutACommandItExplainsItself)
{
    EXPECT_EQ(RunInPrivateHome("2>/dev/null").status, 2);
    const Result help = RunInPrivateHome("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.output.rfind("Usage: ", 0), 0u);
}

}  // namespace
