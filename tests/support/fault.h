#ifndef GAKPPC_FAULT_H
#define GAKPPC_FAULT_H

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "import_hook.h"

namespace gaktest {

// Counts and disturbs the calls that libgakppc makes to one function.
//
//     CountingHook<calls::Socket> socketCalls;
//     socketCalls.FailCall(1, -1, EMFILE);      // the next call fails; all others go through
//     ...
//     EXPECT_EQ(socketCalls.Count(), 1u);
//
// `Call` describes the function: its symbol, its signature and the library whose calls are meant (see namespace calls;
// tests may bring their own). Only one hook of a Call can exist at a time. All members may be used while other
// threads make calls. A thread may still be inside a call when the hook ends.
template <typename Call, typename Signature = typename Call::Signature>
class CountingHook;

template <typename Call, typename R, typename... Args>
class CountingHook<Call, R(Args...)> {
public:
    // Asked at every call with its number, counted from 1. An empty answer lets the call go through; otherwise the
    // caller gets the answer and the function is not called. May wait, and may call Real.
    using Action = std::function<std::optional<R>(uint64_t number, Args... args)>;

    CountingHook()
    {
        State& state = TheState();
        // The first calls may come before `real` is known; they wait for the mutex.
        std::lock_guard<std::mutex> lock(state.mutex);
        state.count = 0;
        state.action = nullptr;
        hook_.emplace(Call::kSymbol, reinterpret_cast<void*>(&Replacement), Call::kLibrary);
        state.real = hook_->template original<R (*)(Args...)>();
    }
    ~CountingHook() { OnCall(nullptr); }
    CountingHook(const CountingHook&) = delete;
    CountingHook& operator=(const CountingHook&) = delete;

    // The calls made since the hook was set or Reset, those that were made to fail included.
    uint64_t Count() const
    {
        std::lock_guard<std::mutex> lock(TheState().mutex);
        return TheState().count;
    }

    // Counts from 0 again and disturbs nothing any more.
    void Reset()
    {
        OnCall(nullptr);
        std::lock_guard<std::mutex> lock(TheState().mutex);
        TheState().count = 0;
    }

    // Replaces the previous action. Null: every call goes through.
    void OnCall(Action action)
    {
        std::shared_ptr<const Action> shared = action ? std::make_shared<const Action>(std::move(action)) : nullptr;
        std::lock_guard<std::mutex> lock(TheState().mutex);
        TheState().action.swap(shared);
    }

    // Call `number`, counted from 1 since the hook was set or Reset, returns `result` with errno `error`.
    void FailCall(uint64_t number, R result, int error) { FailCalls(number, number, result, error); }

    // Every call from `first` on fails.
    void FailFrom(uint64_t first, R result, int error) { FailCalls(first, UINT64_MAX, result, error); }

    // The calls `first` to `last` fail.
    void FailCalls(uint64_t first, uint64_t last, R result, int error)
    {
        OnCall([=](uint64_t number, Args...) -> std::optional<R> {
            if (number < first || number > last) {
                return std::nullopt;
            }
            errno = error;
            return result;
        });
    }

    // The function itself, not counted.
    static R Real(Args... args) { return TheState().real(args...); }

private:
    // Outlives every hook: threads may be inside a call when one ends.
    struct State {
        std::mutex mutex;
        uint64_t count = 0;
        std::shared_ptr<const Action> action;
        R (*real)(Args...) = nullptr;
    };

    static State& TheState()
    {
        static State* const state = new State;
        return *state;
    }

    static R Replacement(Args... args)
    {
        State& state = TheState();
        uint64_t number = 0;
        std::shared_ptr<const Action> action;
        R (*real)(Args...) = nullptr;
        {
            const int savedErrno = errno;
            std::lock_guard<std::mutex> lock(state.mutex);
            number = ++state.count;
            action = state.action;
            real = state.real;
            errno = savedErrno;
        }
        if (action != nullptr) {
            const std::optional<R> answer = (*action)(number, args...);
            if (answer.has_value()) {
                return *answer;
            }
        }
        return real(args...);
    }

    std::optional<ImportHook> hook_;
};

// The functions that tests disturb.
namespace calls {

struct OfGakppc {
    static constexpr const char* kLibrary = "libgakppc.so";
};

struct Socket : OfGakppc {
    static constexpr const char* kSymbol = "socket";
    using Signature = int(int, int, int);
};
struct Bind : OfGakppc {
    static constexpr const char* kSymbol = "bind";
    using Signature = int(int, const sockaddr*, socklen_t);
};
struct Listen : OfGakppc {
    static constexpr const char* kSymbol = "listen";
    using Signature = int(int, int);
};
struct Accept : OfGakppc {
    static constexpr const char* kSymbol = "accept";
    using Signature = int(int, sockaddr*, socklen_t*);
};
struct Poll : OfGakppc {
    static constexpr const char* kSymbol = "poll";
    using Signature = int(pollfd*, nfds_t, int);
};
struct Connect : OfGakppc {
    static constexpr const char* kSymbol = "connect";
    using Signature = int(int, const sockaddr*, socklen_t);
};
struct Recv : OfGakppc {
    static constexpr const char* kSymbol = "recv";
    using Signature = ssize_t(int, void*, size_t, int);
};
struct Writev : OfGakppc {
    static constexpr const char* kSymbol = "writev";
    using Signature = ssize_t(int, const iovec*, int);
};
struct Shutdown : OfGakppc {
    static constexpr const char* kSymbol = "shutdown";
    using Signature = int(int, int);
};
struct Close : OfGakppc {
    static constexpr const char* kSymbol = "close";
    using Signature = int(int);
};
struct Unlink : OfGakppc {
    static constexpr const char* kSymbol = "unlink";
    using Signature = int(const char*);
};
struct Access : OfGakppc {
    static constexpr const char* kSymbol = "access";
    using Signature = int(const char*, int);
};
struct Mkdir : OfGakppc {
    static constexpr const char* kSymbol = "mkdir";
    using Signature = int(const char*, mode_t);
};
struct Fcntl : OfGakppc {
    static constexpr const char* kSymbol = "fcntl";
    using Signature = int(int, int, long);  // its variable argument, where it has one, fits a register
};
struct Malloc : OfGakppc {
    static constexpr const char* kSymbol = "malloc";
    using Signature = void*(size_t);
};
// operator new, throwing form: an action that fails it throws std::bad_alloc.
struct OperatorNew : OfGakppc {
    static constexpr const char* kSymbol = "_Znwm";
    using Signature = void*(size_t);
};
struct MemsetS : OfGakppc {
    static constexpr const char* kSymbol = "memset_s";
    using Signature = int(void*, size_t, int, size_t);
};
struct PthreadCreate : OfGakppc {
    static constexpr const char* kSymbol = "pthread_create";
    using Signature = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
};
// Threads that are started as std::thread: the call is made inside libstdc++, so this disturbs the test's own
// std::threads as well. Fails with the error number as its result.
struct StdThreadCreate {
    static constexpr const char* kSymbol = "pthread_create";
    static constexpr const char* kLibrary = "libstdc++.so.6";
    using Signature = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
};

}  // namespace calls
}  // namespace gaktest

#endif
