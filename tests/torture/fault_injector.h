#ifndef GAKPPC_FAULT_INJECTOR_H
#define GAKPPC_FAULT_INJECTOR_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>

// Numbers the fallible calls that are made on behalf of libgakppc in this process and makes chosen ones fail.
//
// A call counts when it is made inside the library: by a thread between entering and leaving one of its functions, or
// by a thread that the library started. Counted are all allocations, also those of libstdc++ and libprotobuf under the
// library, and every socket, file, thread and text call that libgakppc.so imports.
//
// A call is known by its thread, its function and its place in that thread's sequence of calls to the function. That
// does not depend on how threads interleave, so the same call is met again in every run of the same conversation. Only
// who closes a descriptor is open, namely whoever leaves it last: closes are counted in the process as a whole.
namespace gaktest {

enum class Mode : uint8_t {
    kCount,  // nothing fails
    kOnce,   // the chosen call fails
    kFrom,   // it fails, and every call of every thread after it
};

struct Site {
    uint32_t thread;  // see Threads
    uint32_t call;    // index for CallName
    uint32_t ordinal;

    bool operator==(const Site& other) const
    {
        return thread == other.thread && call == other.call && ordinal == other.ordinal;
    }
    bool operator<(const Site& other) const
    {
        return std::tie(thread, call, ordinal) < std::tie(other.thread, other.call, other.ordinal);
    }
};

// The conversation's own threads; those of the library follow in the order of their start.
enum Threads : uint32_t {
    kMainThread,
    kComputeThread,
    kCustomStartThread,
    kCustomThread,
    kAnyThread,
    kAcceptThread,
    kFirstReceiveThread
};

const char* CallName(uint32_t call);

// Whether `symbol`, an import of the library, is among the calls that can be made to fail.
bool IsDisturbed(const char* symbol);

// Hooks the imports; once, before the library is used. With `verbose` the failing call's stack is printed.
void InstallHooks(bool verbose);

// From now on calls are counted, and fail as `mode` says; `chosen` is ignored when counting. Sites go to `sites`, at
// most `capacity`.
void Arm(Mode mode, const Site& chosen, Site* sites, size_t capacity);
// Nothing is counted or fails any more. Returns the number of calls that were counted.
size_t Disarm();
// Whether the chosen call has been met.
bool HasFailed();
// Makes ready for the next conversation: nothing has failed, and the library's next thread is its first.
void Forget();

// From now on connects succeed at once, with nobody at the other end.
void PretendToConnect();

// Whether the library's thread is inside recv.
bool IsReceiving(uint32_t thread);

// Names the calling thread.
void NameThread(uint32_t thread);

// The calling thread is inside the library, or not, for the length of a scope.
class Inside {
public:
    explicit Inside(bool inside = true);
    ~Inside();
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

private:
    const bool outer_;
};
class Outside : public Inside {
public:
    Outside() : Inside(false) {}
};

// Describes the blocks that were allocated inside the library, live on, and are either not reachable from global data
// or no mere entry of a table; empty when there are none. Left out is what the C library keeps for its next thread, and
// what libprotobuf loses by itself: a string for which its repeated field then finds no room.
std::string LeakedBlocks();

}  // namespace gaktest

#endif
