#include "run_log.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace gaktest {
namespace {

constexpr uint32_t kLastEvents = 150;

// ---- Places ----

using Places = std::map<uintptr_t, std::string>;

std::vector<std::string> LinesOf(const std::string& command)
{
    std::vector<std::string> lines;
    FILE* pipe = popen(command.c_str(), "r");
    char line[2000];
    while (pipe != nullptr && fgets(line, sizeof(line), pipe) != nullptr) {
        line[strcspn(line, "\n")] = '\0';
        lines.emplace_back(line);
    }
    if (pipe != nullptr) {
        pclose(pipe);
    }
    return lines;
}

// A function that the reader of a schedule looks for: the library's or a scenario's, not a thin layer between.
bool IsTelling(const std::string& file)
{
    return (file.find("/qel/") != std::string::npos || file.find("/schedule/scenarios/") != std::string::npos) &&
           file.find("mutex.h") == std::string::npos && file.find("scenario.h") == std::string::npos;
}

std::string Shortened(std::string function, const std::string& file)
{
    const std::string unnamed = "(anonymous namespace)::";
    for (size_t at = function.find(unnamed); at != std::string::npos; at = function.find(unnamed)) {
        function.erase(at, unnamed.size());
    }
    const size_t slash = file.rfind('/');
    const size_t bracket = function.find('(');
    return function.substr(0, bracket) + " (" + file.substr(slash == std::string::npos ? 0 : slash + 1) + ")";
}

// The names of all places at once, because asking takes its time.
void FindNames(Places& places)
{
    std::ostringstream command;
    command << "addr2line -a -f -i -C -e /proc/" << getpid() << "/exe" << std::hex;
    for (const auto& place : places) {
        command << " 0x" << place.first - 1;
    }
    std::string* name = nullptr;
    bool isTelling = false;
    const std::vector<std::string> lines = LinesOf(command.str() + " 2>/dev/null");
    for (size_t line = 0; line < lines.size(); ++line) {
        if (lines[line].compare(0, 2, "0x") == 0) {
            name = &places[strtoull(lines[line].c_str(), nullptr, 16) + 1];
            isTelling = false;
        } else if (line + 1 < lines.size()) {
            const std::string& file = lines[++line];
            if (!isTelling && (name->empty() || IsTelling(file))) {
                *name = Shortened(lines[line - 1], file);
                isTelling = IsTelling(file);
            }
        }
    }
}

std::string NameOfPlace(const Places& places, uintptr_t place)
{
    const auto found = places.find(place);
    if (found != places.end() && !found->second.empty()) {
        return found->second;
    }
    char text[24];
    snprintf(text, sizeof(text), "%#" PRIxPTR, place);
    return text;
}

// "{401234}" in a finding stands for a place.
void FindPlaces(const char* text, Places& places)
{
    for (const char* brace = strchr(text, '{'); brace != nullptr; brace = strchr(brace + 1, '{')) {
        places[strtoull(brace + 1, nullptr, 16)];
    }
}

std::string WithNames(const char* text, const Places& places)
{
    std::string result;
    while (*text != '\0') {
        if (*text == '{') {
            char* end = nullptr;
            const uintptr_t place = strtoull(text + 1, &end, 16);
            result += NameOfPlace(places, place);
            text = end + 1;
        } else {
            result += *text++;
        }
    }
    return result;
}

// ---- Printing ----

// Objects are numbered in the order in which they appear: addresses tell a reader nothing.
class Numbers {
public:
    size_t Of(uintptr_t object) { return numbers_.emplace(object, numbers_.size() + 1).first->second; }

private:
    std::map<uintptr_t, size_t> numbers_;
};

void PrintEvent(const RunLog& log, const Event& event, const Places& places, Numbers& objects)
{
    char what[32] = "";
    if (event.op == Op::kCreateThread || event.op == Op::kJoinThread || event.op == Op::kStart) {
        snprintf(what, sizeof(what), "thread %d", event.number);
    } else if (event.object != 0) {
        snprintf(what, sizeof(what), "#%zu", objects.Of(event.object));
    } else if (event.number >= 0) {
        snprintf(what, sizeof(what), "fd %d", event.number);
    }
    printf("  %d %-15s %-12s %-9s %s\n", event.thread, log.threadNames[event.thread], NameOf(event.op), what,
           NameOfPlace(places, event.place).c_str());
}

void PrintSchedule(const RunLog& log, uint32_t first, const Places& places)
{
    printf("schedule (thread, operation, object, place)%s:\n", first == 0 ? "" : ", its end");
    Numbers objects;
    int lastThread = -1;
    for (uint32_t number = first; number < log.eventCount; ++number) {
        const Event& event = log.events[number];
        if (lastThread != -1 && event.thread != lastThread) {
            printf("  --\n");
        }
        lastThread = event.thread;
        PrintEvent(log, event, places, objects);
    }
}

void PrintStacks(const RunLog& log, const Places& places)
{
    for (int thread = 0; thread < log.threadCount; ++thread) {
        const Stack& stack = log.stacks[thread];
        if (stack.depth > 0) {
            printf("thread %d (%s)%s is in\n", thread, log.threadNames[thread],
                   thread == log.finder ? ", which ran," : "");
        }
        for (int depth = 0; depth < stack.depth; ++depth) {
            printf("    %s\n", NameOfPlace(places, stack.places[depth]).c_str());
        }
    }
}

Places CollectPlaces(const RunLog& log, uint32_t firstEvent)
{
    Places places;
    FindPlaces(log.finding, places);
    for (const Stack& stack : log.stacks) {
        std::for_each(stack.places, stack.places + stack.depth, [&](uintptr_t place) { places[place]; });
    }
    std::for_each(log.events + firstEvent, log.events + log.eventCount,
                  [&](const Event& event) { places[event.place]; });
    FindNames(places);
    return places;
}

}  // namespace

const char* NameOf(Op op)
{
    static const char* const names[] = {
        "start",  "end",     "load",   "store",  "read-modify", "fence",    "lock",   "try lock", "unlock",
        "wait",   "woken",   "notify", "create", "join",        "init",     "socket", "bind",     "listen",
        "accept", "connect", "recv",   "send",   "poll",        "shutdown", "close",  "fork",     "log line",
    };
    static_assert(sizeof(names) / sizeof(names[0]) == static_cast<size_t>(Op::kCount), "one name for each");
    return names[static_cast<size_t>(op)];
}

RunLog* CreateRunLog()
{
    void* memory = mmap(nullptr, sizeof(RunLog), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<RunLog*>(memory);
}

void PrintRun(const RunLog& log, bool wholeSchedule)
{
    const uint32_t first = wholeSchedule || log.eventCount < kLastEvents ? 0 : log.eventCount - kLastEvents;
    const Places places = CollectPlaces(log, first);
    PrintSchedule(log, first, places);
    PrintStacks(log, places);
    printf("found: %s\n", WithNames(log.finding, places).c_str());
}

}  // namespace gaktest
