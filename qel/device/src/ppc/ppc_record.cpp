#include "ppc_record.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "own_pid.h"

namespace ppc {

// The records of one kind that can be recognised: all live ones and those in quarantine.
class RecordDirectory {
public:
    // not covered: runs in the compiler only
    constexpr explicit RecordDirectory(size_t quarantineSize) noexcept : quarantineSize_(quarantineSize) {}

    void Add(PpcRecord* record)
    {
        qel::MutexLock lock(mutex_);
        PpcRecord*& bucket = Bucket(record);
        record->nextInBucket_ = bucket;
        bucket = record;
    }

    bool AddRef(PpcRecord* record)
    {
        qel::MutexLock lock(mutex_);
        if (!Contains(record)) {
            return false;
        }
        if (record->refs_.fetch_add(1, std::memory_order_relaxed) == 0) {
            LeaveQuarantine(record);
        }
        return true;
    }

    bool MarkEnded(PpcRecord* record)
    {
        qel::MutexLock lock(mutex_);
        return Contains(record) &&
               (record->calls_.fetch_or(PpcRecord::kEnded, std::memory_order_relaxed) & PpcRecord::kEnded) == 0;
    }

    // Around a fork, whose child must find the directory whole and its mutex free.
    void LockForFork() GAKPPC_ACQUIRE(mutex_) { mutex_.Lock(); }
    void UnlockAfterFork() GAKPPC_RELEASE(mutex_) { mutex_.Unlock(); }

    // For what may be the last reference.
    void Release(PpcRecord* record) { free(ReleaseLocked(record)); }

private:
    // Returns the record that is no longer kept, if any; it has left the directory.
    PpcRecord* ReleaseLocked(PpcRecord* record)
    {
        qel::MutexLock lock(mutex_);
        if (record->refs_.fetch_sub(1, std::memory_order_acquire) != 1) {  // the mutex releases
            return nullptr;
        }
        EnterQuarantine(record);
        if (quarantined_ <= quarantineSize_) {
            return nullptr;
        }
        PpcRecord* released = oldest_;
        LeaveQuarantine(released);
        Remove(released);
        return released;
    }

    void EnterQuarantine(PpcRecord* record) GAKPPC_REQUIRES(mutex_)
    {
        record->quarantinedBefore_ = newest_;
        record->quarantinedAfter_ = nullptr;
        (newest_ != nullptr ? newest_->quarantinedAfter_ : oldest_) = record;
        newest_ = record;
        ++quarantined_;
    }

    void LeaveQuarantine(PpcRecord* record) GAKPPC_REQUIRES(mutex_)
    {
        PpcRecord* before = record->quarantinedBefore_;
        PpcRecord* after = record->quarantinedAfter_;
        (before != nullptr ? before->quarantinedAfter_ : oldest_) = after;
        (after != nullptr ? after->quarantinedBefore_ : newest_) = before;
        --quarantined_;
    }

    PpcRecord*& Bucket(const PpcRecord* record) GAKPPC_REQUIRES(mutex_)
    {
        return buckets_[(reinterpret_cast<uintptr_t>(record) / 64) % kBuckets];
    }

    bool Contains(const PpcRecord* record) GAKPPC_REQUIRES(mutex_)
    {
        const PpcRecord* entry = Bucket(record);
        while (entry != nullptr && entry != record) {
            entry = entry->nextInBucket_;
        }
        return entry != nullptr;
    }

    void Remove(PpcRecord* record) GAKPPC_REQUIRES(mutex_)
    {
        PpcRecord** link = &Bucket(record);
        while (*link != record) {
            link = &(*link)->nextInBucket_;
        }
        *link = record->nextInBucket_;
    }

    static constexpr size_t kBuckets = 1024;

    const size_t quarantineSize_;
    qel::Mutex mutex_;
    PpcRecord* buckets_[kBuckets] GAKPPC_GUARDED_BY(mutex_) = {};

    // The quarantine, in the order of entrance.
    PpcRecord* oldest_ GAKPPC_GUARDED_BY(mutex_) = nullptr;
    PpcRecord* newest_ GAKPPC_GUARDED_BY(mutex_) = nullptr;
    size_t quarantined_ GAKPPC_GUARDED_BY(mutex_) = 0;
};

namespace {

// Constant-initialised and trivially destroyed: usable as long as the process lives.
RecordDirectory sessions(4096);
RecordDirectory servers(64);

// The analysis cannot follow a mutex from one function to another.
void LockDirectories() GAKPPC_ANNOTATE(no_thread_safety_analysis)
{
    sessions.LockForFork();
    servers.LockForFork();
}

void UnlockDirectories() GAKPPC_ANNOTATE(no_thread_safety_analysis)
{
    servers.UnlockAfterFork();
    sessions.UnlockAfterFork();
}

// Refused only for lack of memory; then a child may find a mutex locked.
[[maybe_unused]] const int forkHandlers = pthread_atfork(LockDirectories, UnlockDirectories, UnlockDirectories);

RecordDirectory& DirectoryOf(PpcRecord::Kind kind)
{
    return kind == PpcRecord::Kind::kSession ? sessions : servers;
}

}  // namespace

PpcRecord::PpcRecord(Kind kind, int fd, std::atomic<int32_t>* publicFd)
    : originalFd_(fd), creator_(static_cast<pid_t>(qel::OwnPid())), publicFd_(publicFd), kind_(kind)
{
}

void PpcRecord::Publish() noexcept
{
    DirectoryOf(kind_).Add(this);
}

PpcRecordRef PpcRecord::Acquire(Kind kind, void* handle)
{
    PpcRecord* record = Of(handle);
    return PpcRecordRef(DirectoryOf(kind).AddRef(record) ? record : nullptr);
}

PpcRecordRef PpcRecord::MarkEnded(Kind kind, void* handle)
{
    PpcRecord* record = Of(handle);
    return PpcRecordRef(DirectoryOf(kind).MarkEnded(record) ? record : nullptr);
}

void PpcRecord::Release()
{
    uint32_t refs = refs_.load(std::memory_order_relaxed);
    while (refs > 1) {
        if (refs_.compare_exchange_weak(refs, refs - 1, std::memory_order_release, std::memory_order_relaxed)) {
            return;
        }
    }
    DirectoryOf(kind_).Release(this);
}

void PpcRecord::Revoke()
{
    // Revoking is a call itself, so that the descriptor is still open when it is shut down.
    if (!EnterCall()) {
        return;
    }
    const bool first = (calls_.fetch_or(kRevoked, std::memory_order_relaxed) & kRevoked) == 0;
    if (first) {
        publicFd_->store(-1, std::memory_order_relaxed);
    }
    if (static_cast<pid_t>(qel::OwnPid()) == creator_) {
        if (first) {
            shutdown(originalFd_, SHUT_RDWR);
        }
        LeaveCall();
    } else if (first) {
        // A forked child. The calls in flight are of threads that it does not have, so it closes its copy itself; that
        // this call never leaves keeps every other from doing so again. The connection is the parent's.
        CloseDescriptor();
    }
}

void PpcRecord::CloseDescriptor()
{
    close(originalFd_);
    Release();
}

int PpcOriginalFd(void* session)
{
    const PpcRecordRef record = PpcRecord::Acquire(PpcRecord::Kind::kSession, session);
    return record ? record->OriginalFd() : -1;
}

void PpcStopAccept(void* server)
{
    const PpcRecordRef record = PpcRecord::Acquire(PpcRecord::Kind::kServer, server);
    if (record) {
        record->Revoke();
    }
}

}  // namespace ppc
