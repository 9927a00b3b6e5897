// The string functions, the log calls and the bounds-checked functions below them, on any text. The first byte of the
// input chooses what is tried. Every result is compared with what a plain reading of the contract gives.

#include <cctype>
#include <cstdarg>
#include <memory>
#include <optional>

#include "fuzz_input.h"
#include "log.h"
#include "memguard.h"
#include "osal.h"
#include "status_factory.h"
#include "string_util.h"
#include "vlog.h"

// ---- The device log: keeps the last line, and how many there were ----

namespace {

struct KeptLine {
    int level = 0;  // of the sink
    std::string text;
    std::string statusText;  // of a trace
};

int lines = 0;
KeptLine lastLine;
int minimumLevel = 0;

void Keep(int level, const char* fmt, va_list args)
{
    static char text[10000];
    const int length = vsnprintf(text, sizeof(text), fmt, args);
    FUZZ_CHECK(length >= 0 && static_cast<size_t>(length) < sizeof(text));
    ++lines;
    lastLine = {level, text, {}};
}

}  // namespace

#define GAKPPC_KEEP(level) \
    va_list args; \
    va_start(args, fmt); \
    Keep(level, fmt, args); \
    va_end(args)

int vlog_getlevel(int /*moduleId*/, int* /*enableEvent*/)
{
    return minimumLevel;
}

int CheckLogLevel(int /*moduleId*/, int logLevel)
{
    return logLevel >= minimumLevel ? 1 : 0;
}

void VlogDebugInner(int /*moduleId*/, const char* fmt, ...)
{
    GAKPPC_KEEP(0);
}

void VlogInfoInner(int /*moduleId*/, const char* fmt, ...)
{
    GAKPPC_KEEP(1);
}

void VlogWarnInner(int /*moduleId*/, const char* fmt, ...)
{
    GAKPPC_KEEP(2);
}

void VlogErrorInner(int /*moduleId*/, const char* fmt, ...)
{
    GAKPPC_KEEP(3);
}

void VlogEventInner(int /*moduleId*/, const char* fmt, ...)
{
    GAKPPC_KEEP(5);
}

void VlogInner(int /*moduleId*/, int level, const char* fmt, ...)
{
    GAKPPC_KEEP(level);
}

void VlogWithKVInner(int /*moduleId*/, int /*level*/, KeyValue* pairs, int pairCount, const char* fmt, ...)
{
    GAKPPC_KEEP(7);
    FUZZ_CHECK(pairCount == 1 && strcmp(pairs[0].kname, "status") == 0);
    lastLine.statusText = pairs[0].value;
}

namespace {

// ---- Strings ----

std::string RestAsText(gaktest::Input& input)
{
    const gaktest::Bytes rest = input.Rest();
    return std::string(rest.begin(), rest.end());
}

void TryTrim(gaktest::Input& input)
{
    const std::string text = RestAsText(input);
    const auto isSpace = [](char c) { return isspace(static_cast<unsigned char>(c)) != 0; };
    size_t first = 0;
    while (first < text.size() && isSpace(text[first])) {
        ++first;
    }
    size_t end = text.size();
    while (end > 0 && isSpace(text[end - 1])) {
        --end;
    }
    std::string left = text;
    FUZZ_CHECK(&qel::LTrim(left) == &left && left == text.substr(first));
    std::string right = text;
    FUZZ_CHECK(&qel::RTrim(right) == &right && right == text.substr(0, end));
    std::string both = text;
    FUZZ_CHECK(&qel::Trim(both) == &both && both == (first < end ? text.substr(first, end - first) : ""));
}

// Byte by byte, so that it shares no idea with what it is compared with.
std::string Replaced(const std::string& text, const std::string& from, const std::string& to)
{
    std::string out;
    for (size_t at = 0; at < text.size();) {
        if (text.compare(at, from.size(), from) == 0) {
            out += to;
            at += from.size();
        } else {
            out += text[at++];
        }
    }
    return out;
}

void TryRemoveEscapeChar(gaktest::Input& input)
{
    const std::string text = RestAsText(input);
    std::string wanted;
    for (const char c : text) {
        if (c >= 7 && c <= 13) {
            wanted += {'\\', "abtnvfr"[c - 7]};
        } else {
            wanted += c;
        }
    }
    wanted = Replaced(Replaced(wanted, "%0a", "%%0a"), "%0d", "%%0d");
    FUZZ_CHECK(qel::RemoveEscapeChar(text) == wanted);
}

void TryReplace(gaktest::Input& input)
{
    const std::string from = input.ShortText();
    const std::string to = input.ShortText();
    const std::string text = RestAsText(input);
    std::string changed = text;
    qel::ReplaceAllSubStrDistinct(changed, from, to);
    if (!from.empty()) {
        FUZZ_CHECK(changed == Replaced(text, from, to));
    } else if (to.empty()) {
        FUZZ_CHECK(changed == text);
    } else {
        // Copies of `to` until they pass the end that the text had.
        const size_t copies = text.size() / to.size() + 1;
        FUZZ_CHECK(changed.size() == text.size() + copies * to.size());
        FUZZ_CHECK(changed.compare(copies * to.size(), std::string::npos, text) == 0);
    }
    std::string itself = text;
    qel::ReplaceAllSubStrDistinct(itself, itself, to);
    FUZZ_CHECK(itself == to);
}

// ---- Log lines ----

constexpr size_t kLongestMessage = 8191;
constexpr size_t kLongestLine = 8191;
constexpr char kSink[] = "[qel/device/../common/src/log:";

// A text of any length up to one that is too long for a line, without zeros.
std::string Stretched(gaktest::Input& input)
{
    const size_t length = (size_t{input.Byte()} << 8 | input.Byte()) % (kLongestMessage + 200);
    std::string pattern = input.ShortText();
    std::replace(pattern.begin(), pattern.end(), '\0', ' ');
    std::string text;
    while (!pattern.empty() && text.size() < length) {
        text += pattern;
    }
    text.resize(std::min(text.size(), length));
    return text;
}

// What one log call should hand to the sink; nothing when `message` or the line is too long.
struct WantedLine {
    int level;
    int sinkLine;
    std::string line;
    std::string statusText;
};

void CheckLine(const std::optional<WantedLine>& wanted, const std::string& message)
{
    if (!wanted.has_value() || message.size() > kLongestMessage || wanted->line.size() > kLongestLine) {
        FUZZ_CHECK(lines == 0);
        return;
    }
    FUZZ_CHECK(lines == 1);
    FUZZ_CHECK(lastLine.level == wanted->level);
    FUZZ_CHECK(lastLine.text == kSink + std::to_string(wanted->sinkLine) + "]" + wanted->line);
    FUZZ_CHECK(lastLine.statusText == wanted->statusText);
}

void TryLog(gaktest::Input& input)
{
    enum Family { kPlain, kStatus, kEvent, kTrace, kOperation };
    const auto family = static_cast<Family>(input.Byte() % 5);
    const uint8_t missing = input.Byte();
    minimumLevel = input.Byte() % 5;
    const auto number = static_cast<int>(input.Number());
    const uint32_t status = input.Number();
    const std::string functionText = input.ShortText();
    const std::string fileText = Stretched(input);
    const std::string message = Stretched(input);
    const char* function = missing % 16 == 1 ? nullptr : functionText.c_str();
    const char* file = missing % 16 == 2 ? nullptr : fileText.c_str();
    const char* fmt = missing % 16 == 3 ? nullptr : "%s";
    const char* text = message.c_str();
    const bool isComplete = function != nullptr && file != nullptr && fmt != nullptr;

    qel::QELLog::GetInstance().QELRefreshLevel();
    lines = 0;
    lastLine = {};
    std::optional<WantedLine> wanted;
    if (isComplete) {
        const std::string place = "[" + std::string(file) + ":" + std::to_string(number) + ":" + function + "]" +
                                  std::to_string(osalGetTid());
        const std::string tail = message + "," + place;
        const uint32_t level = status >> 12 & 0xF;
        // A level that the device log does not have counts as INFO.
        const uint32_t current = minimumLevel <= 3 ? static_cast<uint32_t>(minimumLevel) : 1;
        const std::string statusText = qel::StatusFactory::GetErrCodeDesc(status).c_str();  // up to its first zero
        static constexpr int kSinkLines[] = {146, 157, 142, 144, 157};
        switch (family) {
            case kPlain:
                wanted = {1, 157, tail + " Msg: running ok\n", ""};
                break;
            case kStatus:
                if (level >= current && level <= 4) {
                    wanted = {level == 4 ? 1 : static_cast<int>(level), kSinkLines[level],
                              tail + " Msg: " + statusText + "\n", ""};
                }
                break;
            case kEvent:
                wanted = {5, 148, tail + "\n", ""};
                break;
            case kTrace:
                wanted = {7, 155, tail + "\n", functionText.c_str()};
                break;
            case kOperation:
                wanted = {6, 150, place + " " + message + "\n", ""};
                break;
        }
        if (wanted.has_value() && wanted->level < 3 && wanted->level < minimumLevel) {
            wanted.reset();
        }
    }
    switch (family) {
        case kPlain:
            QEL_LOG_IMPL(function, file, number, fmt, text);
            break;
        case kStatus:
            QEL_LOG_IMPL(function, file, number, status, fmt, text);
            break;
        case kEvent:
            QEL_EVENT_LOG_IMPL(function, file, number, fmt, text);
            break;
        case kTrace:
            QEL_TRACE_LOG_IMPL(function, file, number, functionText.c_str(), fmt, text);
            break;
        case kOperation:
            QEL_OPLOG_IMPL(function, file, number, fmt, text);
            break;
    }
    CheckLine(wanted, message);
}

void TrySave(gaktest::Input& input)
{
    const uint32_t level = input.Byte() % 16 == 0 ? input.Number() : input.Byte() % 9;
    minimumLevel = input.Byte() % 5;
    const std::string statusText = input.ShortText();
    const std::string text = Stretched(input);
    lines = 0;
    lastLine = {};
    qel::QELLog::GetInstance().QELSaveLog(38, level, text.c_str(), statusText.c_str());
    static constexpr int kSinkLevels[] = {0, 1, 2, 3, 1, 5, 6, 7};
    static constexpr int kSinkLines[] = {146, 157, 142, 144, 157, 148, 150, 155};
    const uint32_t row = level <= 7 ? level : 1;
    if (kSinkLevels[row] < 3 && kSinkLevels[row] < minimumLevel) {
        FUZZ_CHECK(lines == 0);
        return;
    }
    FUZZ_CHECK(lines == 1 && lastLine.level == kSinkLevels[row]);
    FUZZ_CHECK(lastLine.text == kSink + std::to_string(kSinkLines[row]) + "]" + text);
    FUZZ_CHECK(lastLine.statusText == (row == 7 ? statusText.c_str() : ""));
}

void TryStatus(gaktest::Input& input)
{
    const uint32_t status = input.Number();
    const uint32_t number = 0x02000000 + input.Byte() % 64;
    const std::string text = RestAsText(input);
    qel::StatusFactory& factory = qel::StatusFactory::GetInstance();
    FUZZ_CHECK(factory.GetErrDesc(status) == qel::StatusFactory::GetErrCodeDesc(status));
    const std::string before = factory.GetErrDesc(number);
    factory.RegisterErrorNo(number, text);
    const std::string after = factory.GetErrDesc(number);
    FUZZ_CHECK(after == text || after == before);
}

// ---- Bounds-checked functions ----

__attribute__((format(printf, 4, 5))) int Print(char* dest, size_t destMax, size_t count, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf_s(dest, destMax, count, fmt, args);
    va_end(args);
    return length;
}

void TryBounds(gaktest::Input& input)
{
    const size_t size = input.Byte();
    const size_t count = input.Byte();
    const std::string text = RestAsText(input);
    const size_t length = strlen(text.c_str());
    // On the heap and of the exact size, so that the address sanitizer sees the first byte too many.
    const std::unique_ptr<char[]> dest(new char[size]);

    int result = Print(dest.get(), size, count, "%s", text.c_str());
    const bool fits = length < size && length <= count;
    FUZZ_CHECK(result == (fits ? static_cast<int>(length) : -1));
    FUZZ_CHECK(!fits || text.compare(0, length, dest.get()) == 0);

    result = sprintf_s(dest.get(), size, "%s", text.c_str());
    FUZZ_CHECK(result == (length < size ? static_cast<int>(length) : -1));
    FUZZ_CHECK(result == -1 || text.compare(0, length, dest.get()) == 0);

    FUZZ_CHECK((memset_s(dest.get(), size, 'y', count) == 0) == (count <= size));
    FUZZ_CHECK(std::all_of(dest.get(), dest.get() + std::min(size, count), [](char c) { return c == 'y'; }));
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    gaktest::Input input(data, size);
    switch (input.Byte() % 7) {
        case 0:
            TryTrim(input);
            break;
        case 1:
            TryRemoveEscapeChar(input);
            break;
        case 2:
            TryReplace(input);
            break;
        case 3:
            TryLog(input);
            break;
        case 4:
            TrySave(input);
            break;
        case 5:
            TryStatus(input);
            break;
        default:
            TryBounds(input);
            break;
    }
    return 0;
}
