#ifndef GAKPPC_RECEIVE_THREADS_H
#define GAKPPC_RECEIVE_THREADS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <thread>
#include <vector>

#include "mutex.h"

namespace qel {

// The threads that receive, in the order of their start, each from its start until it is reaped; and the list of those
// that have reported their end. Any thread may call any function: threads are joined outside the mutex. That joins are
// short is up to the handlers: what their thread-local objects wait for, others wait for too.
class ReceiveThreads {
public:
    using Body = std::function<void(uint64_t number)>;

    // Starts a thread; its number is the count of threads before it. Joins first what has ended, because the new thread
    // then takes over a stack instead of having one mapped. Raises std::system_error when the thread cannot be started
    // and std::bad_alloc.
    void Start(Body body);

    // The calling thread has nothing left to do but to join the one that ended before it, so that at most one waits to
    // be joined. A thread from elsewhere only leaves an entry in the list of ended threads, or none when memory runs
    // out.
    void ReportEnd();

    // A thread as the lists know it. The system gives thread ids again, so a serial number goes with each; it is 0 for
    // a thread from elsewhere.
    struct Record {
        uint64_t serial;
        std::thread::id id;
    };
    // What was found in reaping, and what was left.
    struct Reaping {
        size_t threadsBefore;
        std::vector<Record> threads;  // empty if not asked for, or for lack of memory
        std::vector<Record> ended;    // the same
        size_t threadsAfter;
        size_t endedAfter;
    };
    // Joins the threads that have reported their end and takes them off both lists.
    Reaping Reap(bool withRecords);

    // Joins all threads, which must be about to end, and empties both lists.
    void JoinAll();

private:
    struct Thread {
        std::thread handle;  // empty when the thread has ended
        std::thread::id id;
        std::list<Record> report = std::list<Record>(1);  // moves to the ended ones: reporting the end cannot fail
    };
    using Threads = std::map<uint64_t, Thread>;  // by serial number

    std::thread TakeLastEnded();
    void CopyRecords(Reaping& reaping) GAKPPC_REQUIRES(mutex_);

    Mutex mutex_;
    uint64_t lastSerial_ GAKPPC_GUARDED_BY(mutex_) = 0;
    Threads threads_ GAKPPC_GUARDED_BY(mutex_);
    std::list<Record> ended_ GAKPPC_GUARDED_BY(mutex_);
    std::thread lastEnded_ GAKPPC_GUARDED_BY(mutex_);  // has joined all that ended before it
};

}  // namespace qel

#endif
