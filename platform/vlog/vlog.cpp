#include "vlog.h"

#include <pthread.h>
#include <signal.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "plain_format.h"

namespace {

constexpr int kDebug = 0;
constexpr int kInfo = 1;
constexpr int kWarn = 2;
constexpr int kError = 3;
constexpr int kFatal = 4;
constexpr int kEvent = 5;
constexpr int kOperation = 6;
constexpr int kTrace = 7;

std::atomic<int> currentLevel{kWarn};

const char* LevelName(int level)
{
    switch (level) {
        case kDebug:
            return "DEBUG";
        case kInfo:
            return "INFO";
        case kWarn:
            return "WARN";
        case kError:
            return "ERROR";
        case kFatal:
            return "FATAL";
        case kEvent:
            return "EVENT";
        case kOperation:
            return "OPLOG";
        case kTrace:
            return "TRACE";
        default:
            return "UNKNOWN";
    }
}

const char* OrNull(const char* text)
{
    return text != nullptr ? text : "(null)";
}

struct Date {
    int64_t year;
    unsigned month;
    unsigned day;
};

// The calendar date of a day counted from 1970-01-01; the system sets no clock to an earlier one. The C library's
// conversions take a lock and may read the time zone from a file, which a logger that is called from anywhere must not.
Date DateOfDay(int64_t daysSinceEpoch)
{
    constexpr int64_t kDaysPerEra = 146097;  // 400 years
    // Counted from 0000-03-01, a leap day is the last day of its year.
    const int64_t days = daysSinceEpoch + 719468;
    const int64_t era = days / kDaysPerEra;
    const auto dayOfEra = static_cast<unsigned>(days - era * kDaysPerEra);
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned monthFromMarch = (5 * dayOfYear + 2) / 153;
    const unsigned day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
    const unsigned month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    return {era * 400 + yearOfEra + (month <= 2 ? 1 : 0), month, day};
}

// `count` decimal digits and one character. Returns where the text goes on.
char* WriteDigits(char* at, unsigned value, size_t count, char end)
{
    for (size_t i = count; i > 0; --i) {
        at[i - 1] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    at[count] = end;
    return at + count + 1;
}

// "2026-01-31T23:59:59."
struct SecondText {
    time_t second;
    size_t length;
    char text[24];
};

SecondText TextOfSecond(time_t time)
{
    constexpr time_t kSecondsPerDay = time_t{24} * 60 * 60;
    const Date date = DateOfDay(time / kSecondsPerDay);
    const auto second = static_cast<unsigned>(time % kSecondsPerDay);
    SecondText result = {time, 0, {}};
    char* at = WriteDigits(result.text, static_cast<unsigned>(date.year), 4, '-');
    at = WriteDigits(at, date.month, 2, '-');
    at = WriteDigits(at, date.day, 2, 'T');
    at = WriteDigits(at, second / 3600, 2, ':');
    at = WriteDigits(at, second / 60 % 60, 2, ':');
    at = WriteDigits(at, second % 60, 2, '.');
    result.length = static_cast<size_t>(at - result.text);
    return result;
}

// One line, built on the stack. What does not fit is cut; space for the closing newline is always kept.
class Line {
public:
    void Append(const char* fmt, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list args;
        va_start(args, fmt);
        AppendArgs(fmt, args);
        va_end(args);
    }

    void AppendArgs(const char* fmt, va_list args) __attribute__((format(printf, 2, 0)))
    {
        const size_t available = sizeof(text_) - length_;
        const int wanted = platform::Format(text_ + length_, available, fmt, args);
        if (wanted > 0) {
            length_ += static_cast<size_t>(wanted) < available ? static_cast<size_t>(wanted) : available - 1;
        }
    }

    void AppendTime()
    {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        // Most lines are of the same second as the one before.
        static thread_local SecondText last = {};
        if (last.length == 0 || last.second != now.tv_sec) {
            last = TextOfSecond(now.tv_sec);
        }
        memcpy(text_ + length_, last.text, last.length);
        length_ += last.length;
        length_ = static_cast<size_t>(WriteDigits(text_ + length_, static_cast<unsigned>(now.tv_nsec / 1000), 6, 'Z') -
                                      text_);
    }

    // " INFO [38] "; always fits.
    void AppendOrigin(int level, int moduleId)
    {
        platform::TextOut out(text_ + length_, text_ + sizeof(text_));
        out.Append(" ", 1);
        out.Append(LevelName(level));
        out.Append(" [", 2);
        out.Append(moduleId);
        out.Append("] ", 2);
        length_ = static_cast<size_t>(out.at() - text_);
    }

    // The finished line: without the newlines that the text ended in, with one of its own.
    void End()
    {
        while (length_ > 0 && text_[length_ - 1] == '\n') {
            --length_;
        }
        text_[length_++] = '\n';
    }

    const char* text() const { return text_; }
    size_t length() const { return length_; }

private:
    char text_[10240];
    size_t length_ = 0;
};

sigset_t OnlySigpipe()
{
    sigset_t sigpipe;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    return sigpipe;
}

// Keeps a broken pipe from killing the process, for the calling thread and the length of a scope. A SIGPIPE that was
// pending before stays pending.
class SigpipeGuard {
public:
    SigpipeGuard() : sigpipe_(OnlySigpipe())
    {
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
        wasPending_ = IsPending();
    }
    ~SigpipeGuard() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

    // Removes the signal of a write that failed with EPIPE.
    void Consume()
    {
        const timespec noWait{};
        sigtimedwait(&sigpipe_, nullptr, &noWait);
        if (wasPending_ && !IsPending()) {
            pthread_kill(pthread_self(), SIGPIPE);  // the two had merged: the caller's goes back
        }
    }

private:
    static bool IsPending()
    {
        sigset_t pending;
        sigemptyset(&pending);
        sigpending(&pending);
        return sigismember(&pending, SIGPIPE) == 1;
    }

    const sigset_t sigpipe_;
    sigset_t before_;
    bool wasPending_;
};

// write(2) that raises no SIGPIPE by itself, which saves the guard's system calls. False when this kernel, or what
// standard error is, cannot do that; nothing has been written then.
bool WriteWithoutSignal(const Line& line)
{
#ifdef RWF_NOSIGNAL
    constexpr int kNoSignal = RWF_NOSIGNAL;
#else
    constexpr int kNoSignal = 0x100;  // Linux 6.18
#endif
    constexpr off_t kCurrentPosition = -1;
    static std::atomic<bool> unsupported{false};
    if (unsupported.load(std::memory_order_relaxed)) {
        return false;
    }
    const iovec whole = {const_cast<char*>(line.text()), line.length()};
    if (pwritev2(STDERR_FILENO, &whole, 1, kCurrentPosition, kNoSignal) != -1) {
        return true;
    }
    if (errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL) {
        unsupported.store(true, std::memory_order_relaxed);
        return false;
    }
    return true;
}

// A short or failed write loses the rest of the line: repeating it could block or mix lines.
void WriteToStandardError(const Line& line)
{
    if (WriteWithoutSignal(line)) {
        return;
    }
    SigpipeGuard guard;
    if (write(STDERR_FILENO, line.text(), line.length()) == -1 && errno == EPIPE) {
        guard.Consume();
    }
}

void AppendPairs(Line& line, const KeyValue* pairs, int pairCount)
{
    if (pairs == nullptr) {
        return;
    }
    for (int i = 0; i < pairCount; ++i) {
        line.Append("{%s=%s} ", OrNull(pairs[i].kname), OrNull(pairs[i].value));
    }
}

void WriteLine(int moduleId, int level, const KeyValue* pairs, int pairCount, const char* fmt, va_list args)
    __attribute__((format(printf, 5, 0)));

void WriteLine(int moduleId, int level, const KeyValue* pairs, int pairCount, const char* fmt, va_list args)
{
    const int savedErrno = errno;
    Line line;
    line.AppendTime();
    line.AppendOrigin(level, moduleId);
    AppendPairs(line, pairs, pairCount);
    if (fmt != nullptr) {
        errno = savedErrno;  // the format may contain %m
        line.AppendArgs(fmt, args);
    } else {
        line.Append("(null)");
    }
    line.End();
    WriteToStandardError(line);
    errno = savedErrno;
}

}  // namespace

int vlog_init(void)
{
    return 0;
}

int vlog_getlevel(int /*moduleId*/, int* enableEvent)
{
    if (enableEvent != nullptr) {
        *enableEvent = 1;
    }
    return currentLevel.load(std::memory_order_relaxed);
}

int vlog_setlevel(int level)
{
    if (level < kDebug || level > kError) {
        return -1;
    }
    currentLevel.store(level, std::memory_order_relaxed);
    return 0;
}

int CheckLogLevel(int /*moduleId*/, int logLevel)
{
    return logLevel >= currentLevel.load(std::memory_order_relaxed) ? 1 : 0;
}

void VlogDebugInner(int moduleId, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    WriteLine(moduleId, kDebug, nullptr, 0, fmt, args);
    va_end(args);
}

void VlogInfoInner(int moduleId, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    WriteLine(moduleId, kInfo, nullptr, 0, fmt, args);
    va_end(args);
}

void VlogWarnInner(int moduleId, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    WriteLine(moduleId, kWarn, nullptr, 0, fmt, args);
    va_end(args);
}

void VlogErrorInner(int moduleId, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    WriteLine(moduleId, kError, nullptr, 0, fmt, args);
    va_end(args);
}

void VlogEventInner(int moduleId, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    WriteLine(moduleId, kEvent, nullptr, 0, fmt, args);
    va_end(args);
}

void VlogInner(int moduleId, int level, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    WriteLine(moduleId, level, nullptr, 0, fmt, args);
    va_end(args);
}

void VlogWithKVInner(int moduleId, int level, KeyValue* pairs, int pairCount, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    WriteLine(moduleId, level, pairs, pairCount, fmt, args);
    va_end(args);
}
