// The main function of every test program. The library's socket directory is a fixed path below /home, so each test
// program first moves into a mount namespace of its own with an empty /home: tests disturb neither the machine nor each
// other. The program may be started by hand from any folder.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sanitizer_options.h"

namespace {

constexpr char kPrivateHomeScript[] = GAKPPC_PRIVATE_HOME_SCRIPT;
constexpr char kBuildDir[] = GAKPPC_BUILD_DIR;

bool InPrivateHome()
{
    const char* value = getenv("GAKPPC_PRIVATE_HOME");
    return value != nullptr && strcmp(value, "1") == 0;
}

bool OnlyListsTests(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--gtest_list_tests") == 0) {
            return true;
        }
    }
    return false;
}

// Starts this program again inside the private namespace. Returns only when that is impossible.
void RunInPrivateHome(int argc, char** argv)
{
    char self[PATH_MAX] = "";
    if (readlink("/proc/self/exe", self, sizeof(self) - 1) == -1) {
        perror("/proc/self/exe");
        return;
    }
    std::string script = kPrivateHomeScript;
    std::string keep = "--keep";
    std::string buildDir = kBuildDir;
    std::string end = "--";
    std::vector<char*> args{script.data(), keep.data(), buildDir.data(), end.data(), self};
    args.insert(args.end(), argv + 1, argv + argc);
    args.push_back(nullptr);
    execv(script.c_str(), args.data());
    fprintf(stderr, "%s: %s\n", script.c_str(), strerror(errno));
}

}  // namespace

int main(int argc, char** argv)
{
    if (!InPrivateHome() && !OnlyListsTests(argc, argv)) {
        RunInPrivateHome(argc, argv);
        return EXIT_FAILURE;
    }
    gaktest::PrepareForSanitizers();
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
