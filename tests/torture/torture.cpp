// Lets every fallible call that one whole conversation makes fail, each in a process of its own.
//
//   torture                               counts the calls, then runs one round for each of them in both modes
//   torture --mode=once|from [--every=K] [--offset=K]
//   torture --mode=once|from --call=N     one round, with its log and the stack of the failing call
//   torture --list [--verbose]            the numbers of all calls; with the log of the undisturbed conversation
//
// A round passes when the process neither crashes nor hangs, when no thread, descriptor or block is left after the
// conversation, when the next conversation, undisturbed, succeeds, and when the process ends with 0.

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "conversation.h"
#include "fault_injector.h"
#include "imports.h"
#include "process.h"
#include "vlog.h"

namespace {

using namespace std::chrono_literals;
using gaktest::Mode;
using gaktest::Site;

constexpr size_t kMaxSites = 8192;
constexpr size_t kReasonSize = 256;
constexpr auto kRoundLimit = 60s;  // of one that does not hang, on a busy machine
constexpr auto kTotalLimit = 900s;
constexpr int kLanes = 2;
constexpr int kEnoughFailures = 20;  // of a lane, which then runs no further rounds
constexpr int kEverything = 0;       // log levels
constexpr int kWarnings = 2;
constexpr char kHome[] = "/home/KrovaUser";
constexpr char kSocketDir[] = "/home/KrovaUser/qel_ppc";

struct Options {
    bool list = false;
    bool verbose = false;
    bool once = true;
    bool from = true;
    size_t call = 0;  // 0: all
    size_t every = 1;
    size_t offset = 0;
};

const char* Name(Mode mode)
{
    return mode == Mode::kOnce ? "once" : "from";
}

// What the processes of one run tell the runner; in memory that they share.
struct Counted {
    size_t calls;
    Site sites[kMaxSites];
};
struct Result {
    bool passed;
    char reason[kReasonSize];
};

template <typename T>
T* Shared(size_t count = 1)
{
    void* memory = mmap(nullptr, count * sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::runtime_error("mmap");
    }
    return static_cast<T*>(memory);
}

// ---- One round ----

void RemoveSocketDir()
{
    unlink((std::string(kSocketDir) + "/sock_server_19280").c_str());
    rmdir(kSocketDir);
}

void Quiet()
{
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDERR_FILENO);
    close(null);
}

// The process of one round. Every log line is composed, so that composing one is disturbed as well.
std::string RunRound(Mode mode, const Site& site, Counted* counted, bool verbose)
{
    vlog_setlevel(kEverything);
    gaktest::InstallHooks(verbose);
    gaktest::Arm(mode, site, counted != nullptr ? counted->sites : nullptr, counted != nullptr ? kMaxSites : 0);
    std::string failure = gaktest::RunConversation();
    const size_t calls = gaktest::Disarm();
    if (!failure.empty()) {
        return failure;
    }
    if (mode == Mode::kCount) {
        counted->calls = calls;
    } else if (!gaktest::HasFailed()) {
        return "the call was not met";
    }
    gaktest::Forget();
    failure = gaktest::RunConversation();
    if (!failure.empty()) {
        return "in the next conversation: " + failure;
    }
    vlog_setlevel(kWarnings);
    if (!gaktest::FloodRecords()) {
        return "the driver does not forget its records";
    }
    const std::string blocks = gaktest::LeakedBlocks();
    return blocks.empty() ? "" : "blocks are left: " + blocks;
}

// Forks one round and waits for it; the forking process has never used the library.
void InProcess(Mode mode, const Site& site, Counted* counted, bool verbose, Result* result)
{
    *result = {};
    RemoveSocketDir();
    gaktest::ChildProcess child([&] {
        if (!verbose) {
            Quiet();
        }
        const std::string reason = RunRound(mode, site, counted, verbose);
        snprintf(result->reason, kReasonSize, "%s", reason.c_str());
        result->passed = reason.empty();
        fflush(nullptr);
        exit(reason.empty() ? 0 : 1);  // its exit handlers are the library's last calls
        return 0;
    });
    const gaktest::ExitStatus status = child.WaitExitUnlessItHangs(kRoundLimit);
    if (!status.ended) {
        child.Kill(SIGKILL);
        snprintf(result->reason, kReasonSize, "it hangs");
    } else if (status.signal != 0) {
        snprintf(result->reason, kReasonSize, "it was killed by signal %d", status.signal);
    } else if (result->reason[0] == '\0' && !(result->passed && status.code == 0)) {
        snprintf(result->reason, kReasonSize, "it exited with %d", status.code);
    }
    result->passed = result->passed && status.ExitedWith(0);
}

// ---- Counting ----

std::vector<Site> CountOnce(bool verbose)
{
    static Counted* const counted = Shared<Counted>();
    static Result* const result = Shared<Result>();
    InProcess(Mode::kCount, {}, counted, verbose, result);
    if (!result->passed) {
        throw std::runtime_error(std::string("the undisturbed conversation fails: ") + result->reason);
    }
    if (counted->calls > kMaxSites) {
        throw std::runtime_error("too many calls");
    }
    std::vector<Site> sites(counted->sites, counted->sites + counted->calls);
    std::sort(sites.begin(), sites.end());
    return sites;
}

void Print(size_t number, const Site& site)
{
    const std::string thread =
        site.thread == gaktest::kAnyThread ? "any thread" : "thread " + std::to_string(site.thread);
    printf("%5zu  %s, %s number %u\n", number, thread.c_str(), gaktest::CallName(site.call), site.ordinal + 1);
}

// The numbers are worth something only if the next run finds the same calls.
std::vector<Site> Count(bool verbose)
{
    std::vector<Site> sites = CountOnce(verbose);
    const std::vector<Site> again = CountOnce(verbose);
    const auto differ = std::mismatch(sites.begin(), sites.end(), again.begin(), again.end());
    if (differ.first != sites.end() || differ.second != again.end()) {
        Print(static_cast<size_t>(differ.first - sites.begin()) + 1, *differ.first);
        Print(static_cast<size_t>(differ.second - again.begin()) + 1, *differ.second);
        throw std::runtime_error("two undisturbed conversations made different calls");
    }
    return sites;
}

// ---- All rounds ----

struct Round {
    Mode mode;
    size_t call;  // from 1
};

// Every lane has a socket directory of its own.
void EnterLane()
{
    if (unshare(CLONE_NEWNS) != 0 || mount("tmpfs", kHome, "tmpfs", 0, "mode=0755") != 0) {
        throw std::runtime_error(std::string("a lane's home: ") + strerror(errno));
    }
}

int RunLane(int lane, const std::vector<Round>& rounds, const std::vector<Site>& sites, Result* results)
{
    EnterLane();
    int failures = 0;
    for (size_t i = static_cast<size_t>(lane); i < rounds.size() && failures < kEnoughFailures; i += kLanes) {
        InProcess(rounds[i].mode, sites[rounds[i].call - 1], nullptr, false, &results[i]);
        failures += results[i].passed ? 0 : 1;
    }
    return 0;
}

std::vector<Round> Select(const Options& options, size_t calls)
{
    std::vector<Round> rounds;
    for (const Mode mode : {Mode::kOnce, Mode::kFrom}) {
        if (mode == Mode::kOnce ? !options.once : !options.from) {
            continue;
        }
        for (size_t call = 1 + options.offset; call <= calls; call += options.every) {
            rounds.push_back({mode, call});
        }
    }
    return rounds;
}

int RunAll(const Options& options, const std::vector<Site>& sites)
{
    const auto begin = std::chrono::steady_clock::now();
    const std::vector<Round> rounds = Select(options, sites.size());
    auto* results = Shared<Result>(rounds.size());
    {
        std::vector<std::unique_ptr<gaktest::ChildProcess>> lanes;
        for (int lane = 0; lane < kLanes; ++lane) {
            lanes.push_back(
                std::make_unique<gaktest::ChildProcess>([&, lane] { return RunLane(lane, rounds, sites, results); }));
        }
        for (const auto& lane : lanes) {
            if (!lane->WaitExit(kTotalLimit).ExitedWith(0)) {
                fprintf(stderr, "torture: a lane did not end well within its time\n");
                return EXIT_FAILURE;
            }
        }
    }
    size_t bad = 0;
    for (size_t i = 0; i < rounds.size(); ++i) {
        bad += results[i].passed ? 0 : 1;
        if (results[i].reason[0] != '\0') {
            printf("FAILED --mode=%s --call=%zu: %s;", Name(rounds[i].mode), rounds[i].call, results[i].reason);
            Print(rounds[i].call, sites[rounds[i].call - 1]);
        }
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    printf("%zu calls, %zu rounds, %zu failed or not run, %.1f s\n", sites.size(), rounds.size(), bad, seconds.count());
    return bad == 0 && !rounds.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

int RunOne(const Options& options, const std::vector<Site>& sites)
{
    const Mode mode = options.once ? Mode::kOnce : Mode::kFrom;
    const Site& site = sites.at(options.call - 1);
    Print(options.call, site);
    fflush(stdout);
    auto* result = Shared<Result>();
    InProcess(mode, site, nullptr, true, result);
    printf("%s %s\n", result->passed ? "passed" : "FAILED:", result->reason);
    return result->passed ? EXIT_SUCCESS : EXIT_FAILURE;
}

// ---- Command line ----

bool Parse(const std::string& argument, Options& options)
{
    const auto number = [&](const char* name, size_t& value) {
        const std::string prefix = std::string("--") + name + "=";
        if (argument.rfind(prefix, 0) != 0) {
            return false;
        }
        value = std::stoul(argument.substr(prefix.size()));
        return true;
    };
    if (argument == "--list") {
        options.list = true;
    } else if (argument == "--verbose") {
        options.verbose = true;
    } else if (argument == "--mode=once") {
        options.from = false;
    } else if (argument == "--mode=from") {
        options.once = false;
    } else {
        return number("call", options.call) || number("every", options.every) || number("offset", options.offset);
    }
    return true;
}

bool Parse(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        if (!Parse(std::string(argv[i]), options)) {
            return false;
        }
    }
    return options.every != 0 && (options.call == 0 || options.once != options.from);
}

// The rounds use the fixed socket directory: they run in a /home of their own.
[[noreturn]] void StartAgainInPrivateHome(int argc, char** argv)
{
    char self[PATH_MAX] = "";
    if (readlink("/proc/self/exe", self, sizeof(self) - 1) != -1) {
        std::vector<std::string> words{GAKPPC_PRIVATE_HOME_SCRIPT, "--keep", GAKPPC_BUILD_DIR, "--", self};
        words.insert(words.end(), argv + 1, argv + argc);
        std::vector<char*> args;
        for (std::string& word : words) {
            args.push_back(word.data());
        }
        args.push_back(nullptr);
        execv(args[0], args.data());
    }
    perror(GAKPPC_PRIVATE_HOME_SCRIPT);
    exit(EXIT_FAILURE);
}

// A call that the library has made since this test was written would never be made to fail.
void CheckImports()
{
    std::string names;
    for (const std::string& symbol : gaktest::ForgottenImports()) {
        names += " " + symbol;
    }
    if (!names.empty()) {
        throw std::runtime_error("imports that are neither made to fail nor known not to:" + names);
    }
}

int Run(const Options& options)
{
    CheckImports();
    const std::vector<Site> sites = Count(options.verbose);
    if (options.list) {
        for (size_t i = 0; i < sites.size(); ++i) {
            Print(i + 1, sites[i]);
        }
        return EXIT_SUCCESS;
    }
    return options.call != 0 ? RunOne(options, sites) : RunAll(options, sites);
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!Parse(argc, argv, options)) {
        fprintf(stderr, "usage: torture [--mode=once|from [--call=N]] [--every=K] [--offset=K] [--list [--verbose]]\n");
        return 2;
    }
    if (getenv("GAKPPC_PRIVATE_HOME") == nullptr) {
        StartAgainInPrivateHome(argc, argv);
    }
    try {
        return Run(options);
    } catch (const std::exception& error) {
        fprintf(stderr, "torture: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
