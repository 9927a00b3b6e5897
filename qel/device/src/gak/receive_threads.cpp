#include "receive_threads.h"

#include <iterator>
#include <new>
#include <utility>

#include "library_thread.h"

namespace qel {
namespace {

// The serial number of a thread that was started here, until it reports its end.
thread_local uint64_t ownSerial = 0;

// Short for a thread that has reported its end: it has nothing left to do.
void JoinIfAny(std::thread thread)
{
    if (thread.joinable()) {
        thread.join();
    }
}

}  // namespace

void ReceiveThreads::Start(Body body)
{
    JoinIfAny(TakeLastEnded());
    Threads started;
    MutexLock lock(mutex_);
    const uint64_t number = threads_.size();
    const uint64_t serial = ++lastSerial_;
    Thread& thread = started[serial];
    // Under the mutex, which waits for nobody: a thread that ends at once then finds itself listed.
    thread.handle = StartLibraryThread([serial, number, body = std::move(body)] {
        ownSerial = serial;
        body(number);
    });
    thread.id = thread.handle.get_id();
    thread.report.front() = {serial, thread.id};
    threads_.merge(started);
}

void ReceiveThreads::ReportEnd()
{
    const uint64_t serial = std::exchange(ownSerial, 0);
    std::list<Record> foreign;
    if (serial == 0) {
        try {
            foreign.push_back({0, std::this_thread::get_id()});
        } catch (const std::bad_alloc&) {
            return;
        }
    }
    std::thread before;
    {
        MutexLock lock(mutex_);
        ended_.splice(ended_.end(), foreign);
        const auto self = threads_.find(serial);
        if (self != threads_.end()) {  // otherwise JoinAll waits for it
            ended_.splice(ended_.end(), self->second.report);
            before = std::exchange(lastEnded_, std::move(self->second.handle));
        }
    }
    JoinIfAny(std::move(before));
}

ReceiveThreads::Reaping ReceiveThreads::Reap(bool withRecords)
{
    Reaping reaping = {};
    std::thread last;
    {
        MutexLock lock(mutex_);
        reaping.threadsBefore = threads_.size();
        if (withRecords) {
            CopyRecords(reaping);
        }
        for (auto record = ended_.begin(); record != ended_.end();) {
            record = threads_.erase(record->serial) != 0 ? ended_.erase(record) : std::next(record);
        }
        reaping.threadsAfter = threads_.size();
        reaping.endedAfter = ended_.size();
        last = std::exchange(lastEnded_, {});
    }
    JoinIfAny(std::move(last));
    return reaping;
}

void ReceiveThreads::CopyRecords(Reaping& reaping)
{
    try {
        reaping.threads.reserve(threads_.size());
        reaping.ended.assign(ended_.begin(), ended_.end());
    } catch (const std::bad_alloc&) {
        return;
    }
    for (const auto& entry : threads_) {
        reaping.threads.push_back({entry.first, entry.second.id});
    }
}

void ReceiveThreads::JoinAll()
{
    Threads threads;
    std::list<Record> ended;
    {
        MutexLock lock(mutex_);
        threads.swap(threads_);
        ended.swap(ended_);
    }
    for (auto& entry : threads) {
        JoinIfAny(std::move(entry.second.handle));
    }
    JoinIfAny(TakeLastEnded());
}

std::thread ReceiveThreads::TakeLastEnded()
{
    MutexLock lock(mutex_);
    return std::exchange(lastEnded_, {});
}

}  // namespace qel
