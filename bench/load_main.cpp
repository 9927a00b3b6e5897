// The time of loading the library, and of a shared object that holds only its message classes, when everything that
// they depend on is loaded already. Each load takes place in a process of its own.
//
// usage: PROGRAM LIBRARY MESSAGES DEPENDENCY...

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "commands.h"
#include "stopwatch.h"

namespace {

void Load(const char* path)
{
    if (dlopen(path, RTLD_NOW | RTLD_GLOBAL) == nullptr) {
        fprintf(stderr, "bench: %s\n", dlerror());
        _exit(1);
    }
}

double LoadTime(const char* path)
{
    int ends[2];
    if (pipe(ends) != 0) {
        exit(1);
    }
    const pid_t child = fork();
    if (child == 0) {
        const double before = bench::Now(CLOCK_MONOTONIC);
        Load(path);
        const double time = bench::Now(CLOCK_MONOTONIC) - before;
        _exit(write(ends[1], &time, sizeof(time)) == sizeof(time) ? 0 : 1);
    }
    close(ends[1]);
    double time = 0;
    if (read(ends[0], &time, sizeof(time)) != sizeof(time)) {
        fprintf(stderr, "bench: loading %s failed\n", path);
        exit(1);
    }
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return time;
}

bench::Command Loader(const char* path)
{
    return [path](int count, int) {
        std::vector<double> times;
        for (int i = 0; i < count; ++i) {
            times.push_back(LoadTime(path));
        }
        return bench::Values{{"p50", bench::Quantile(times, 0.5)}};
    };
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: %s LIBRARY MESSAGES DEPENDENCY...\n", argv[0]);
        return 2;
    }
    for (int i = 3; i < argc; ++i) {
        Load(argv[i]);
    }
    bench::ServeCommands({{"load_library", Loader(argv[1])}, {"load_messages", Loader(argv[2])}});
    return 0;
}
