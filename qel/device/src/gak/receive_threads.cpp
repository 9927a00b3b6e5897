#include "receive_threads.h"

#include <iterator>
#include <new>
#include <utility>

#include "library_thread.h"

namespace qel {
namespace {

// The serial number of a thread that was started here.
thread_local uint64_t ownSerial = 0;

void Join(std::list<std::thread>& threads)
{
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace

void ReceiveThreads::Start(Body body)
{
    JoinEnded();
    Threads started;
    MutexLock lock(mutex_);
    const uint64_t number = threads_.size();
    const uint64_t serial = ++lastSerial_;
    Thread& thread = started[serial];
    // Under the mutex, which waits for nobody: a thread that ends at once then finds itself listed.
    thread.handle.front() = StartLibraryThread([serial, number, body = std::move(body)] {
        ownSerial = serial;
        body(number);
    });
    thread.id = thread.handle.front().get_id();
    thread.report.front() = {serial, thread.id};
    threads_.merge(started);
}

void ReceiveThreads::ReportEnd()
{
    std::list<Record> foreign;
    if (ownSerial == 0) {
        try {
            foreign.push_back({0, std::this_thread::get_id()});
        } catch (const std::bad_alloc&) {
            return;
        }
    }
    MutexLock lock(mutex_);
    ended_.splice(ended_.end(), foreign);
    const auto self = threads_.find(ownSerial);
    if (self != threads_.end()) {  // otherwise JoinAll waits for it
        ended_.splice(ended_.end(), self->second.report);
        toJoin_.splice(toJoin_.end(), self->second.handle);
    }
}

ReceiveThreads::Reaping ReceiveThreads::Reap(bool withRecords)
{
    Reaping reaping = {};
    std::list<std::thread> joined;
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
        joined.swap(toJoin_);
    }
    Join(joined);
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
    std::list<std::thread> joined;
    {
        MutexLock lock(mutex_);
        threads.swap(threads_);
        ended.swap(ended_);
        joined.swap(toJoin_);
    }
    for (auto& entry : threads) {
        Join(entry.second.handle);
    }
    Join(joined);
}

// The joins are short: an ended thread has nothing left to do.
void ReceiveThreads::JoinEnded()
{
    std::list<std::thread> joined;
    {
        MutexLock lock(mutex_);
        joined.swap(toJoin_);
    }
    Join(joined);
}

}  // namespace qel
