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

const std::string kMakeUserNamespace = "unshare --user --map-root-user ";

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

// The script in a checkout that is not below /home: there it keeps none visible, wherever this one lies.
class ElsewhereTest : public testing::Test {
protected:
    ElsewhereTest()
    {
        fs::create_directory(checkout_ / "scripts");
        fs::copy(GAKPPC_PRIVATE_HOME_SCRIPT, Script());
    }
    ~ElsewhereTest() override { fs::remove_all(checkout_); }

    std::string Script() const { return checkout_ / "scripts/private-home"; }

private:
    std::string template_ = "/tmp/gakppc-checkout-XXXXXX";
    const fs::path checkout_ = mkdtemp(template_.data());
};

TEST_F(ElsewhereTest, HomeHoldsOnlyAnEmptyUser)
{
    // What the machine's home holds must not show.
    fs::create_directories("/home/someone");
    ASSERT_EQ(mkdir("/home/KrovaUser/qel_ppc", 0755), 0);
    const Result result = RunShell("cd / && " + Script() + " find /home");
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

TEST_F(ElsewhereTest, SocketFolderIsNeverKept)
{
    fs::create_directories("/home/KrovaUser/qel_ppc");
    const Result result = RunShell("cd /home/KrovaUser/qel_ppc && " + Script() +
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
    const std::string nobody = "cd / && setpriv --reuid 65534 --regid 65534 --clear-groups ";
    if (RunShell(nobody + "true 2>/dev/null").status != 0) {
        GTEST_SKIP() << "this user cannot become another one, and has no privileges anyway";
    }
    if (RunShell(nobody + kMakeUserNamespace + "true 2>/dev/null").status != 0) {
        GTEST_SKIP() << "nobody may make a user namespace here, as in a chroot";
    }
    // The checkout may lie in a folder that is closed to others.
    fs::create_directories("/home/someone/scripts");
    fs::copy(GAKPPC_PRIVATE_HOME_SCRIPT, "/home/someone/scripts/private-home");
    const Result result = RunShell(nobody + "/home/someone/scripts/private-home sh -c 'touch /home/KrovaUser/file && " +
                                   "find /home/KrovaUser'");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "/home/KrovaUser\n/home/KrovaUser/file\n");
}

TEST(PrivateHomeTest, SaysSoWhereNamespacesAreNotPermitted)
{
    // No privilege to make a mount namespace, and none to make a user namespace with that privilege: in a user
    // namespace that may hold no further ones, or where nobody may make any, as in a chroot.
    const std::string attempt = "setpriv --bounding-set=-sys_admin --inh-caps=-sys_admin " +
                                std::string(GAKPPC_PRIVATE_HOME_SCRIPT) + " true 2>&1";
    const bool permitted = RunShell(kMakeUserNamespace + "true 2>/dev/null").status == 0;
    const Result result = RunShell(
        permitted ? kMakeUserNamespace + "sh -c 'echo 0 > /proc/sys/user/max_user_namespaces; exec " + attempt + "'"
                  : attempt);
    EXPECT_EQ(result.status, 77);
    EXPECT_EQ(result.output, "private-home: mount namespaces are not permitted here\n");
}

TEST(PrivateHomeTest, NamesAProgramThatIsNotInstalled)
{
    for (const std::string missing : {"mount", "unshare"}) {
        const fs::path programs = "/home/without-" + missing;
        fs::create_directories(programs);
        for (const std::string program : {"realpath", "dirname", "id", "mkdir", "mount", "unshare"}) {
            const Result found = RunShell("command -v " + program);
            ASSERT_EQ(found.status, 0) << program;
            if (program != missing) {
                fs::create_symlink(found.output.substr(0, found.output.find('\n')), programs / program);
            }
        }
        const Result result = RunShell("PATH=" + programs.string() + " " + GAKPPC_PRIVATE_HOME_SCRIPT + " true 2>&1");
        EXPECT_EQ(result.status, 127);
        EXPECT_EQ(result.output.rfind("private-home: " + missing + " is not installed", 0), 0u) << result.output;
    }
}

TEST(PrivateHomeTest, WithoutACommandItExplainsItself)
{
    EXPECT_EQ(RunInPrivateHome("2>/dev/null").status, 2);
    const Result help = RunInPrivateHome("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.output.rfind("Usage: ", 0), 0u);
}

}  // namespace
