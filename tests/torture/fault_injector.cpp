#include "fault_injector.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "import_hook.h"

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}

namespace gaktest {
namespace {

constexpr int kStackDepth = 24;

// Calls that the conversation reaches only after a failure are disturbed as well, by kFrom.
enum Call : uint32_t {
    kMalloc,
    kCalloc,
    kRealloc,
    kMemalign,
    kSocket,
    kBind,
    kListen,
    kAccept,
    kConnect,
    kRecv,
    kWritev,
    kShutdown,
    kClose,
    kUnlink,
    kAccess,
    kMkdir,
    kFcntl,
    kPoll,
    kMemsetS,
    kSprintfS,
    kVsnprintfS,
    kPthreadCreate,
    kCallCount
};
struct ThreadState {
    uint32_t thread = 0;
    uint32_t ordinals[kCallCount] = {};
    bool inside = false;
};
thread_local ThreadState self;

// Everything is constant-initialised: allocations come here before main.
std::atomic<bool> armed{false};
std::atomic<bool> failed{false};
std::atomic<bool> verbose{false};
std::atomic<bool> connectsPretend{false};
std::atomic<size_t> counted{0};
constexpr uint32_t kMaxThreads = 64;
std::atomic<bool> receiving[kMaxThreads] = {};
std::atomic<uint32_t> closes{0};
std::atomic<uint32_t> nextThread{kAcceptThread};
Mode armedMode = Mode::kCount;
Site chosenSite{};
Site* siteList = nullptr;
size_t siteCapacity = 0;

constexpr const char* kCallNames[kCallCount] = {
    "malloc",  "calloc", "realloc",  "aligned_alloc", "socket",      "bind",          "listen", "accept",
    "connect", "recv",   "writev",   "shutdown",      "close",       "unlink",        "access", "mkdir",
    "fcntl",   "poll",   "memset_s", "sprintf_s",     "vsnprintf_s", "pthread_create"};

void PrintStack()
{
    const bool inside = self.inside;
    self.inside = false;
    std::array<void*, kStackDepth> frames;
    backtrace_symbols_fd(frames.data(), backtrace(frames.data(), kStackDepth), STDERR_FILENO);
    self.inside = inside;
}

bool Chosen(const Site& site)
{
    if (armedMode == Mode::kCount) {
        return false;
    }
    if (armedMode == Mode::kFrom && failed) {
        return true;
    }
    if (!(site == chosenSite) || failed.exchange(true)) {
        return false;
    }
    if (verbose) {
        fprintf(stderr, "torture: %s fails here:\n", kCallNames[site.call]);
        PrintStack();
    }
    return true;
}

// Counts one call and says whether it is to fail.
bool MustFail(Call call)
{
    if (!self.inside || !armed) {
        return false;
    }
    const Site site =
        call == kClose ? Site{kAnyThread, call, closes++} : Site{self.thread, call, self.ordinals[call]++};
    const size_t index = counted++;
    if (index < siteCapacity) {
        siteList[index] = site;
    }
    return Chosen(site);
}

// ---- Blocks that live ----

struct Block {
    uintptr_t hidden = 0;  // the address, inverted: the search for pointers must not find it here
    size_t size = 0;
    void* caller = nullptr;
    uint32_t thread = 0;
    bool reached = false;
};

constexpr size_t kMaxBlocks = 4096;
// Tables keep small entries for as long as the process lives: the process's device, threads that ended unreaped.
constexpr size_t kLargestEntry = 40;

std::mutex blocksMutex;
Block blocks[kMaxBlocks];
size_t blockCount = 0;

void NoteAllocated(void* address, size_t size, void* caller)
{
    if (!self.inside || address == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> lock(blocksMutex);
    if (blockCount == kMaxBlocks) {
        abort();
    }
    blocks[blockCount++] = {~reinterpret_cast<uintptr_t>(address), size, caller, self.thread, false};
}

void NoteFreed(void* address)
{
    std::lock_guard<std::mutex> lock(blocksMutex);
    for (size_t i = blockCount; i-- > 0;) {
        if (blocks[i].hidden == ~reinterpret_cast<uintptr_t>(address)) {
            blocks[i] = blocks[--blockCount];
            return;
        }
    }
}

bool AllocatedBy(const Block& block, const char* library)
{
    Dl_info info{};
    return dladdr(block.caller, &info) != 0 && strstr(info.dli_fname, library) != nullptr;
}

bool IsLeaked(const Block& block)
{
    // A thread's table of thread-local storage, which the C library keeps for the next thread.
    if (AllocatedBy(block, "ld-linux")) {
        return false;
    }
    if (block.reached) {
        return block.size > kLargestEntry;
    }
    return block.size != sizeof(std::string) || !AllocatedBy(block, "libprotobuf");
}

// Finds the blocks that global data still points to, directly or through other blocks.
class Reach {
public:
    Reach(Block* found, size_t count) : blocks_(found), count_(count) {}

    void Search(uintptr_t begin, size_t size)
    {
        for (uintptr_t word = begin; word + sizeof(uintptr_t) <= begin + size; word += sizeof(uintptr_t)) {
            Follow(*reinterpret_cast<const uintptr_t*>(word));
        }
    }

private:
    void Follow(uintptr_t pointer)
    {
        for (Block* block = blocks_; block != blocks_ + count_; ++block) {
            if (!block->reached && pointer - ~block->hidden < block->size) {
                block->reached = true;
                Search(~block->hidden, block->size);
            }
        }
    }

    Block* const blocks_;
    const size_t count_;
};

int SearchLibrary(dl_phdr_info* info, size_t /*size*/, void* reach)
{
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& part = info->dlpi_phdr[i];
        if (part.p_type == PT_LOAD && (part.p_flags & PF_W) != 0) {
            static_cast<Reach*>(reach)->Search(info->dlpi_addr + part.p_vaddr, part.p_memsz);
        }
    }
    return 0;
}

void* Allocate(size_t size, void* caller)
{
    if (MustFail(kMalloc)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* block = __libc_malloc(size);
    NoteAllocated(block, size, caller);
    return block;
}

// ---- Imported calls ----

// The hooks live until the process ends: its exit handlers call the library.
gaktest::ImportHook* hooks[kCallCount] = {};

template <typename Fn>
Fn Real(Call call)
{
    return hooks[call]->original<Fn>();
}

template <typename R>
R Failed(int error, R result = -1)
{
    errno = error;
    return result;
}

int FakeSocket(int domain, int type, int protocol)
{
    return MustFail(kSocket) ? Failed<int>(EMFILE) : Real<decltype(&socket)>(kSocket)(domain, type, protocol);
}

int FakeBind(int fd, const sockaddr* addr, socklen_t length)
{
    return MustFail(kBind) ? Failed<int>(EADDRINUSE) : Real<decltype(&FakeBind)>(kBind)(fd, addr, length);
}

int FakeListen(int fd, int backlog)
{
    return MustFail(kListen) ? Failed<int>(EADDRINUSE) : Real<decltype(&FakeListen)>(kListen)(fd, backlog);
}

int FakeAccept(int fd, sockaddr* addr, socklen_t* length)
{
    return MustFail(kAccept) ? Failed<int>(EMFILE) : Real<decltype(&FakeAccept)>(kAccept)(fd, addr, length);
}

int FakeConnect(int fd, const sockaddr* addr, socklen_t length)
{
    if (MustFail(kConnect)) {
        return Failed<int>(ECONNREFUSED);
    }
    return connectsPretend ? 0 : Real<decltype(&FakeConnect)>(kConnect)(fd, addr, length);
}

ssize_t FakeRecv(int fd, void* buffer, size_t size, int flags)
{
    if (MustFail(kRecv)) {
        return Failed<ssize_t>(ECONNRESET);
    }
    std::atomic<bool>& mine = receiving[self.thread % kMaxThreads];
    mine = true;
    const ssize_t received = Real<decltype(&FakeRecv)>(kRecv)(fd, buffer, size, flags);
    mine = false;
    return received;
}

ssize_t FakeWritev(int fd, const iovec* entries, int count)
{
    return MustFail(kWritev) ? Failed<ssize_t>(EPIPE) : Real<decltype(&FakeWritev)>(kWritev)(fd, entries, count);
}

// close and shutdown cannot refuse an open Unix-domain socket: what they report, the descriptor has been released and
// the connection has ended.
int FakeShutdown(int fd, int how)
{
    const bool fails = MustFail(kShutdown);
    const int result = Real<decltype(&FakeShutdown)>(kShutdown)(fd, how);
    return fails ? Failed<int>(ENOTCONN) : result;
}

int FakeClose(int fd)
{
    const bool fails = MustFail(kClose);
    const int result = Real<decltype(&FakeClose)>(kClose)(fd);
    return fails ? Failed<int>(EIO) : result;
}

int FakeUnlink(const char* path)
{
    return MustFail(kUnlink) ? Failed<int>(EACCES) : Real<decltype(&FakeUnlink)>(kUnlink)(path);
}

int FakeAccess(const char* path, int mode)
{
    return MustFail(kAccess) ? Failed<int>(EACCES) : Real<decltype(&FakeAccess)>(kAccess)(path, mode);
}

int FakeMkdir(const char* path, mode_t mode)
{
    return MustFail(kMkdir) ? Failed<int>(ENOSPC) : Real<decltype(&FakeMkdir)>(kMkdir)(path, mode);
}

int FakeFcntl(int fd, int command, long argument)
{
    return MustFail(kFcntl) ? Failed<int>(EINVAL) : Real<int (*)(int, int, ...)>(kFcntl)(fd, command, argument);
}

int FakePoll(pollfd* fds, nfds_t count, int timeout)
{
    return MustFail(kPoll) ? Failed<int>(ENOMEM) : Real<decltype(&FakePoll)>(kPoll)(fds, count, timeout);
}

int FakeMemsetS(void* dest, size_t destMax, int c, size_t count)
{
    return MustFail(kMemsetS) ? -1 : Real<decltype(&FakeMemsetS)>(kMemsetS)(dest, destMax, c, count);
}

__attribute__((format(printf, 3, 4))) int FakeSprintfS(char* dest, size_t destMax, const char* fmt, ...)
{
    if (MustFail(kSprintfS)) {
        return -1;
    }
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf(dest, destMax, fmt, args);
    va_end(args);
    return length >= 0 && static_cast<size_t>(length) < destMax ? length : -1;
}

int FakeVsnprintfS(char* dest, size_t destMax, size_t count, const char* fmt, va_list args)
{
    return MustFail(kVsnprintfS) ? -1
                                 : Real<int (*)(char*, size_t, size_t, const char*, va_list)>(kVsnprintfS)(
                                       dest, destMax, count, fmt, args);
}

struct ThreadStart {
    void* (*body)(void*);
    void* argument;
    uint32_t thread;
};

void* RunLibraryThread(void* data)
{
    const auto* start = static_cast<ThreadStart*>(data);
    const ThreadStart copy = *start;
    delete start;
    self.thread = copy.thread;
    const Inside inside;
    return copy.body(copy.argument);
}

int FakePthreadCreate(pthread_t* id, const pthread_attr_t* attributes, void* (*body)(void*), void* argument)
{
    const auto real = Real<decltype(&pthread_create)>(kPthreadCreate);
    if (!self.inside) {
        return real(id, attributes, body, argument);
    }
    if (MustFail(kPthreadCreate)) {
        return EAGAIN;
    }
    std::unique_ptr<ThreadStart> start;
    {
        const Outside ours;
        start.reset(new ThreadStart{body, argument, nextThread++});
    }
    const int result = real(id, attributes, &RunLibraryThread, start.get());
    if (result == 0) {
        static_cast<void>(start.release());  // the thread's from now on
    }
    return result;
}

struct Hooked {
    Call call;
    void* replacement;
    const char* object;
};

template <typename Fn>
Hooked In(Call call, Fn* replacement, const char* library = "libgakppc.so")
{
    return {call, reinterpret_cast<void*>(replacement), library};
}

}  // namespace

const char* CallName(uint32_t call)
{
    return call < kCallCount ? kCallNames[call] : "?";
}

bool IsDisturbed(const char* symbol)
{
    for (const char* name : kCallNames) {
        if (strcmp(name, symbol) == 0) {
            return true;
        }
    }
    return false;
}

void InstallHooks(bool beVerbose)
{
    std::array<void*, 1> frame;
    backtrace(frame.data(), 1);  // loads what it needs now
    verbose = beVerbose;
    const std::vector<Hooked> all = {
        In(kSocket, FakeSocket),         In(kBind, FakeBind),
        In(kListen, FakeListen),         In(kAccept, FakeAccept),
        In(kConnect, FakeConnect),       In(kRecv, FakeRecv),
        In(kWritev, FakeWritev),         In(kShutdown, FakeShutdown),
        In(kClose, FakeClose),           In(kUnlink, FakeUnlink),
        In(kAccess, FakeAccess),         In(kMkdir, FakeMkdir),
        In(kFcntl, FakeFcntl),           In(kPoll, FakePoll),
        In(kMemsetS, FakeMemsetS),       In(kSprintfS, FakeSprintfS),
        In(kVsnprintfS, FakeVsnprintfS), In(kPthreadCreate, FakePthreadCreate, "libstdc++.so.6")};
    for (const Hooked& hooked : all) {
        hooks[hooked.call] = new gaktest::ImportHook(kCallNames[hooked.call], hooked.replacement, hooked.object);
    }
}

void Arm(Mode mode, const Site& chosen, Site* sites, size_t capacity)
{
    armedMode = mode;
    chosenSite = chosen;
    siteList = sites;
    siteCapacity = capacity;
    counted = 0;
    failed = false;
    armed = true;
}

size_t Disarm()
{
    armed = false;
    return counted;
}

bool HasFailed()
{
    return failed;
}

bool IsReceiving(uint32_t thread)
{
    return receiving[thread % kMaxThreads];
}

void PretendToConnect()
{
    connectsPretend = true;
}

void Forget()
{
    failed = false;
    nextThread = kAcceptThread;
}

void NameThread(uint32_t thread)
{
    self.thread = thread;
}

Inside::Inside(bool inside) : outer_(self.inside)
{
    self.inside = inside;
}

Inside::~Inside()
{
    self.inside = outer_;
}

std::string LeakedBlocks()
{
    static Block copies[kMaxBlocks];
    size_t count = 0;
    {
        std::lock_guard<std::mutex> lock(blocksMutex);
        count = blockCount;
        std::copy(blocks, blocks + count, copies);
    }
    Reach reach(copies, count);
    dl_iterate_phdr(&SearchLibrary, &reach);
    std::ostringstream text;
    for (const Block* block = copies; block != copies + count; ++block) {
        if (IsLeaked(*block)) {
            text << block->size << " bytes" << (block->reached ? "" : " without a pointer to them") << ", of thread "
                 << block->thread << "; ";
        }
    }
    return text.str();
}

}  // namespace gaktest

// ---- The allocator of the whole process ----

extern "C" {

void* malloc(size_t size)
{
    return gaktest::Allocate(size, __builtin_return_address(0));
}

void* calloc(size_t count, size_t size)
{
    if (gaktest::MustFail(gaktest::kCalloc)) {
        return gaktest::Failed<void*>(ENOMEM, nullptr);
    }
    void* block = __libc_calloc(count, size);
    gaktest::NoteAllocated(block, count * size, __builtin_return_address(0));
    return block;
}

void* realloc(void* former, size_t size)
{
    if (gaktest::MustFail(gaktest::kRealloc)) {
        return gaktest::Failed<void*>(ENOMEM, nullptr);
    }
    gaktest::NoteFreed(former);  // first: its address may belong to another thread's block afterwards
    void* block = __libc_realloc(former, size);
    gaktest::NoteAllocated(block != nullptr || size == 0 ? block : former, size, __builtin_return_address(0));
    return block;
}

void* aligned_alloc(size_t alignment, size_t size)
{
    if (gaktest::MustFail(gaktest::kMemalign)) {
        return gaktest::Failed<void*>(ENOMEM, nullptr);
    }
    void* block = __libc_memalign(alignment, size);
    gaktest::NoteAllocated(block, size, __builtin_return_address(0));
    return block;
}

void* memalign(size_t alignment, size_t size)
{
    return aligned_alloc(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size)
{
    void* allocated = aligned_alloc(alignment, size);
    if (allocated == nullptr) {
        return ENOMEM;
    }
    *block = allocated;
    return 0;
}

void free(void* block)
{
    if (block != nullptr) {
        gaktest::NoteFreed(block);
    }
    __libc_free(block);
}
}

// Its own, so that a block's caller is the code that wanted it. All other forms come here.
void* operator new(size_t size)
{
    void* block = gaktest::Allocate(size, __builtin_return_address(0));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void operator delete(void* block) noexcept
{
    free(block);
}

void operator delete(void* block, size_t /*size*/) noexcept
{
    free(block);
}
