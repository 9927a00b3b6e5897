// The cost of one log line: the library's, and of the least code that writes the same line.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "commands.h"
#include "log.h"
#include "osal.h"
#include "status_table.h"
#include "stopwatch.h"
#include "vlog.h"

namespace {

constexpr int kModuleId = 38;
constexpr int kInfoLevel = 1;
constexpr int kWarnLevel = 2;
constexpr char kPath[] = "qel/device/src/gak/ppc_client";

#define BENCH_PLACE __func__, kPath, __LINE__
#define BENCH_TEXT "[GAKPPCCLI] SendPpcMsg() deviceId: %u waitType:%u is running"

// One buffer, formatted twice, one call of the sink.
__attribute__((noinline, format(printf, 4, 5))) void LeastInfoLine(const char* function, const char* file, int line,
                                                                   const char* fmt, ...)
{
    char text[8192];
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    if (length < 0 || length >= static_cast<int>(sizeof(text))) {
        return;
    }
    snprintf(text + length, sizeof(text) - static_cast<size_t>(length), ",[%s:%d:%s]%d Msg: %s\n", file, line, function,
             osalGetTid(), "running ok");
    VlogInfoInner(kModuleId, "[%s:%d]%s", "qel/device/../common/src/log", 157, text);
}

void SetLevel(int level)
{
    vlog_setlevel(level);
    qel::QELLog::GetInstance().QELRefreshLevel();
}

// Nanoseconds of processor time of one call.
template <typename Call>
bench::Values TimeOf(int level, int count, const Call& call)
{
    SetLevel(level);
    call(0U);
    const double before = bench::Now(CLOCK_PROCESS_CPUTIME_ID);
    for (int i = 0; i < count; ++i) {
        call(static_cast<unsigned>(i));
    }
    return {{"ns", (bench::Now(CLOCK_PROCESS_CPUTIME_ID) - before) / count}};
}

bench::Values OffPlain(int count, int)
{
    return TimeOf(kWarnLevel, count, [](unsigned i) { QEL_LOG_IMPL(BENCH_PLACE, BENCH_TEXT, i, 1U); });
}

bench::Values OffByStatus(int count, int)
{
    return TimeOf(kWarnLevel, count, [](unsigned i) { QEL_LOG_IMPL(BENCH_PLACE, qel::kStatusOk, BENCH_TEXT, i, 1U); });
}

// The library's own level lets the line pass, the sink does not: the level was raised after the library had read it.
bench::Values FilteredBySink(int count, int)
{
    SetLevel(kInfoLevel);
    vlog_setlevel(kWarnLevel);
    const double before = bench::Now(CLOCK_PROCESS_CPUTIME_ID);
    for (int i = 0; i < count; ++i) {
        QEL_LOG_IMPL(BENCH_PLACE, qel::kStatusOk, BENCH_TEXT, static_cast<unsigned>(i), 1U);
    }
    return {{"ns", (bench::Now(CLOCK_PROCESS_CPUTIME_ID) - before) / count}};
}

bench::Values Written(int count, int)
{
    return TimeOf(kInfoLevel, count, [](unsigned i) { QEL_LOG_IMPL(BENCH_PLACE, BENCH_TEXT, i, 1U); });
}

bench::Values WrittenByLeastCode(int count, int)
{
    return TimeOf(kInfoLevel, count, [](unsigned i) { LeastInfoLine(BENCH_PLACE, BENCH_TEXT, i, 1U); });
}

}  // namespace

// With --show, writes the library's line and the least code's to standard error, for comparison.
int main(int argc, char** argv)
{
    if (argc > 1 && std::string(argv[1]) == "--show") {
        Written(1, 0);
        WrittenByLeastCode(1, 0);
        return 0;
    }
    if (freopen("/dev/null", "w", stderr) == nullptr) {
        return 1;
    }
    bench::ServeCommands({{"off_plain", OffPlain},
                          {"off_by_status", OffByStatus},
                          {"filtered", FilteredBySink},
                          {"written", Written},
                          {"written_least", WrittenByLeastCode}});
    return 0;
}
