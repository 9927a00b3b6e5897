#include "tracer.h"

#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/ucontext.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <regex>
#include <stdexcept>
#include <utility>

namespace gaktest {
namespace {

#if defined(__x86_64__)
using Instruction = uint8_t;
constexpr Instruction kNop = 0x90;
constexpr Instruction kBreakpoint = 0xCC;
#elif defined(__aarch64__)
using Instruction = uint32_t;
constexpr Instruction kNop = 0xD503201F;
constexpr Instruction kBreakpoint = 0xD4200000;
#else
#error "the breakpoints of this processor are not known"
#endif

// ---- Where the arguments are ----

// One argument, as a note describes it: "-4@%edi", "8@24(%rax)", "4@[x0, 8]", "4@$5".
struct Operand {
    int width = 0;  // in bytes, negative for a signed one
    std::string base;
    bool isMemory = false;
    int64_t number = 0;  // of memory: the distance from the base
};

int64_t NumberIn(const std::ssub_match& text)
{
    return text.length() == 0 ? 0 : std::stoll(text.str());
}

Operand ParseOperand(const std::string& text)
{
#if defined(__x86_64__)
    static const std::regex form(R"((-?\d)@(?:%(\w+)|\$(-?\d+)|(-?\d*)\(%(\w+)\)))");
    constexpr int kRegister = 2, kConstant = 3, kDistance = 4, kBase = 5;
#else
    static const std::regex form(R"((-?\d)@(?:([a-z]\w+)|(-?\d+)|\[([a-z]\w+)(?:, (-?\d+))?\]))");
    constexpr int kRegister = 2, kConstant = 3, kDistance = 5, kBase = 4;
#endif
    std::smatch parts;
    if (!std::regex_match(text, parts, form)) {
        throw std::runtime_error("an argument is not understood: " + text);
    }
    Operand operand;
    operand.width = std::stoi(parts.str(1));
    operand.isMemory = parts[kBase].matched;
    operand.base = operand.isMemory ? parts.str(kBase) : parts.str(kRegister);
    operand.number = NumberIn(operand.isMemory ? parts[kDistance] : parts[kConstant]);
    return operand;
}

// Arguments are separated by spaces, as are the parts of "[x0, 8]".
std::vector<Operand> ParseOperands(const std::string& text)
{
    static const std::regex one(R"(-?\d@(?:\[[^\]]*\]|\S+))");
    std::vector<Operand> operands;
    for (std::sregex_iterator at(text.begin(), text.end(), one), end; at != end; ++at) {
        operands.push_back(ParseOperand(at->str()));
    }
    return operands;
}

#if defined(__x86_64__)
uint64_t Register(const ucontext_t& context, const std::string& name)
{
    static const std::vector<std::pair<const char*, int>> legacy = {{"ax", REG_RAX}, {"bx", REG_RBX}, {"cx", REG_RCX},
                                                                    {"dx", REG_RDX}, {"si", REG_RSI}, {"di", REG_RDI},
                                                                    {"bp", REG_RBP}, {"sp", REG_RSP}};
    for (const auto& [letters, number] : legacy) {
        if (name.find(letters) == name.size() - 2) {
            return static_cast<uint64_t>(context.uc_mcontext.gregs[number]);
        }
    }
    if (name[0] == 'r' && name[1] >= '0' && name[1] <= '9') {
        return static_cast<uint64_t>(context.uc_mcontext.gregs[REG_R8 + std::stoi(name.substr(1)) - 8]);
    }
    throw std::runtime_error("a register is not known: " + name);
}
#else
uint64_t Register(const ucontext_t& context, const std::string& name)
{
    return name == "sp" ? context.uc_mcontext.sp : context.uc_mcontext.regs[std::stoi(name.substr(1))];
}
#endif

int64_t Narrowed(uint64_t value, int width)
{
    const int unused = 64 - 8 * std::abs(width);
    return width < 0 ? static_cast<int64_t>(value << unused) >> unused
                     : static_cast<int64_t>(value << unused >> unused);
}

int64_t ValueOf(const Operand& operand, const ucontext_t& context)
{
    uint64_t value = static_cast<uint64_t>(operand.number);
    if (!operand.base.empty()) {
        value += Register(context, operand.base);
    }
    if (operand.isMemory) {
        const uint64_t address = value;
        value = 0;
        // NOLINTNEXTLINE(performance-no-int-to-ptr): that is what the note says
        memcpy(&value, reinterpret_cast<const void*>(address), static_cast<size_t>(std::abs(operand.width)));
    }
    return Narrowed(value, operand.width);
}

// ---- The tracepoints of the library ----

struct Tracepoint {
    std::string name;
    uintptr_t location = 0;
    uint16_t* semaphore = nullptr;
    std::vector<Operand> operands;
};

struct LoadedFile {
    std::string path;
    uintptr_t base = 0;
};

int TakeLibrary(dl_phdr_info* info, size_t, void* found)
{
    if (strstr(info->dlpi_name, "/libgakppc.so") == nullptr) {
        return 0;
    }
    *static_cast<LoadedFile*>(found) = {info->dlpi_name, info->dlpi_addr};
    return 1;
}

LoadedFile Library()
{
    LoadedFile library;
    dl_iterate_phdr(TakeLibrary, &library);
    return library;
}

std::string ContentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

template <typename Value>
Value ValueAt(const std::string& bytes, size_t offset)
{
    Value value;
    memcpy(&value, bytes.substr(offset, sizeof(value)).data(), sizeof(value));
    return value;
}

// The content of the section of that name; empty when there is none.
std::string Section(const std::string& file, const std::string& name)
{
    const auto header = ValueAt<Elf64_Ehdr>(file, 0);
    const auto section = [&](size_t index) {
        return ValueAt<Elf64_Shdr>(file, header.e_shoff + index * header.e_shentsize);
    };
    const size_t names = section(header.e_shstrndx).sh_offset;
    for (size_t index = 0; index < header.e_shnum; ++index) {
        const Elf64_Shdr candidate = section(index);
        if (file.c_str() + names + candidate.sh_name == name) {
            return file.substr(candidate.sh_offset, candidate.sh_size);
        }
    }
    return "";
}

// A note's description: three addresses, then provider, name and arguments, each with a zero behind it.
Tracepoint ParseNote(const std::string& description, uintptr_t base)
{
    const std::string provider = description.c_str() + 24;
    const std::string name = description.c_str() + 24 + provider.size() + 1;
    const std::string arguments = description.c_str() + 24 + provider.size() + name.size() + 2;
    Tracepoint tracepoint;
    tracepoint.name = name;
    tracepoint.location = base + ValueAt<uint64_t>(description, 0);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): that is what the note says
    tracepoint.semaphore = reinterpret_cast<uint16_t*>(base + ValueAt<uint64_t>(description, 16));
    tracepoint.operands = ParseOperands(arguments);
    return tracepoint;
}

std::vector<Tracepoint> FindTracepoints()
{
    const LoadedFile library = Library();
    const std::string notes = Section(ContentOf(library.path), ".note.stapsdt");
    const auto padded = [](size_t size) { return (size + 3) / 4 * 4; };
    std::vector<Tracepoint> found;
    for (size_t at = 0; at < notes.size();) {
        const auto head = ValueAt<Elf64_Nhdr>(notes, at);
        const size_t description = at + sizeof(head) + padded(head.n_namesz);
        found.push_back(ParseNote(notes.substr(description, head.n_descsz), library.base));
        at = description + padded(head.n_descsz);
    }
    return found;
}

// ---- Breakpoints ----

// Read by threads at tracepoints, which exist only while this does not change.
struct Attached {
    std::vector<Tracepoint> tracepoints;
    Tracer::Action action;
    struct sigaction before = {};
};
Attached attached;

bool Write(uintptr_t location, Instruction instruction)
{
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    auto* const code = reinterpret_cast<char*>(location);
    char* const start = code - location % page;
    if (mprotect(start, page, PROT_READ | PROT_WRITE | PROT_EXEC) != 0) {
        return false;
    }
    *reinterpret_cast<volatile Instruction*>(code) = instruction;
    mprotect(start, page, PROT_READ | PROT_EXEC);
    __builtin___clear_cache(code, code + sizeof(instruction));
    return true;
}

// Where the thread has met the breakpoint. Lets it go on behind it.
uintptr_t StepOver(ucontext_t& context)
{
#if defined(__x86_64__)
    return static_cast<uintptr_t>(context.uc_mcontext.gregs[REG_RIP]) - sizeof(Instruction);
#else
    return std::exchange(context.uc_mcontext.pc, context.uc_mcontext.pc + sizeof(Instruction));
#endif
}

// The signal comes from an instruction of the library, so anything may be called.
void OnBreakpoint(int, siginfo_t*, void* argument)
{
    const int error = errno;
    auto& context = *static_cast<ucontext_t*>(argument);
    const uintptr_t location = StepOver(context);
    for (const Tracepoint& tracepoint : attached.tracepoints) {
        if (tracepoint.location == location) {
            TracepointHit hit{tracepoint.name, {}, gettid()};
            for (const Operand& operand : tracepoint.operands) {
                hit.arguments.push_back(ValueOf(operand, context));
            }
            attached.action(hit);
        }
    }
    errno = error;
}

Tracepoint Take(const std::vector<Tracepoint>& all, const std::string& name)
{
    for (const Tracepoint& tracepoint : all) {
        if (tracepoint.name == name) {
            return tracepoint;
        }
    }
    throw std::runtime_error("there is no tracepoint " + name);
}

}  // namespace

Tracer::Tracer(const std::vector<std::string>& names, Action action)
{
    const std::vector<Tracepoint> all = FindTracepoints();
    for (const std::string& name : names) {
        attached.tracepoints.push_back(Take(all, name));
    }
    attached.action = std::move(action);
    struct sigaction handler = {};
    handler.sa_sigaction = &OnBreakpoint;
    handler.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigaction(SIGTRAP, &handler, &attached.before);
    for (const Tracepoint& tracepoint : attached.tracepoints) {
        if (!Write(tracepoint.location, kBreakpoint)) {
            throw std::runtime_error("a breakpoint cannot be placed");
        }
        __atomic_fetch_add(tracepoint.semaphore, 1, __ATOMIC_SEQ_CST);
    }
}

Tracer::~Tracer()
{
    for (const Tracepoint& tracepoint : attached.tracepoints) {
        __atomic_fetch_sub(tracepoint.semaphore, 1, __ATOMIC_SEQ_CST);
        Write(tracepoint.location, kNop);
    }
    sigaction(SIGTRAP, &attached.before, nullptr);
    attached = {};
}

bool Tracer::CanAttach()
{
#ifdef __SANITIZE_THREAD__
    return false;
#else
    return !FindTracepoints().empty();
#endif
}

TracepointLog::TracepointLog(const std::vector<std::string>& names)
    : tracer_(names, [this](const TracepointHit& hit) {
          std::lock_guard<std::mutex> lock(mutex_);
          hits_.push_back(hit);
      })
{
}

std::vector<TracepointHit> TracepointLog::Hits() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return hits_;
}

std::vector<std::string> TracepointLog::Lines() const
{
    std::vector<std::string> lines;
    for (const TracepointHit& hit : Hits()) {
        std::string line = hit.name;
        for (const int64_t argument : hit.arguments) {
            line += " " + std::to_string(argument);
        }
        lines.push_back(line);
    }
    return lines;
}

}  // namespace gaktest
