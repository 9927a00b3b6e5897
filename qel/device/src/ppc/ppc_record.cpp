#include "ppc_record.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "own_pid.h"

namespace ppc {

// The records of one kind that can be recognised: all live ones and the last few retired ones.
class RecordDirectory {
public:
    // not covered: runs in the compiler only
    constexpr explicit RecordDirectory(size_t retiredKept) noexcept : retiredKept_(retiredKept) {}

    void Add(PpcRecord* record)
    {
        qel::MutexLock lock(mutex_);
        PpcRecord*& bucket = Bucket(record);
        record->nextInBucket_ = bucket;
        bucket = record;
    }

    bool Hold(PpcRecord* record)
    {
        qel::MutexLock lock(mutex_);
        if (!Contains(record)) {
            return false;
        }
        if (record->holders_.fetch_add(1, std::memory_order_relaxed) == 0) {
            LeaveRetired(record);
        }
        return true;
    }

    bool TakeFromOwner(PpcRecord* record)
    {
        qel::MutexLock lock(mutex_);
        return Contains(record) && !std::exchange(record->ended_, true);
    }

    // For what may be the last holder.
    void Release(PpcRecord* record) { free(ReleaseLocked(record)); }

private:
    // Returns the record that is no longer kept, if any; it has left the directory.
    PpcRecord* ReleaseLocked(PpcRecord* record)
    {
        qel::MutexLock lock(mutex_);
        if (record->holders_.fetch_sub(1, std::memory_order_acq_rel) != 1) {
            return nullptr;
        }
        EnterRetired(record);
        if (retiredCount_ <= retiredKept_) {
            return nullptr;
        }
        PpcRecord* forgotten = oldestRetired_;
        LeaveRetired(forgotten);
        Remove(forgotten);
        return forgotten;
    }

    void EnterRetired(PpcRecord* record) GAKPPC_REQUIRES(mutex_)
    {
        record->olderRetired_ = newestRetired_;
        record->newerRetired_ = nullptr;
        (newestRetired_ != nullptr ? newestRetired_->newerRetired_ : oldestRetired_) = record;
        newestRetired_ = record;
        ++retiredCount_;
    }

    void LeaveRetired(PpcRecord* record) GAKPPC_REQUIRES(mutex_)
    {
        (record->olderRetired_ != nullptr ? record->olderRetired_->newerRetired_ : oldestRetired_) =
            record->newerRetired_;
        (record->newerRetired_ != nullptr ? record->newerRetired_->olderRetired_ : newestRetired_) =
            record->olderRetired_;
        --retiredCount_;
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

    const size_t retiredKept_;
    qel::Mutex mutex_;
    PpcRecord* buckets_[kBuckets] GAKPPC_GUARDED_BY(mutex_) = {};
    PpcRecord* oldestRetired_ GAKPPC_GUARDED_BY(mutex_) = nullptr;
    PpcRecord* newestRetired_ GAKPPC_GUARDED_BY(mutex_) = nullptr;
    size_t retiredCount_ GAKPPC_GUARDED_BY(mutex_) = 0;
};

namespace {

// Constant-initialised and trivially destroyed: usable as long as the process lives.
RecordDirectory sessions(4096);
RecordDirectory servers(64);

RecordDirectory& DirectoryOf(PpcRecord::Kind kind)
{
    return kind == PpcRecord::Kind::kSession ? sessions : servers;
}

}  // namespace

PpcRecord::PpcRecord(Kind kind, int fd, std::atomic<int32_t>* shownFd)
    : fd_(fd), creator_(static_cast<pid_t>(qel::OwnPid())), shownFd_(shownFd), kind_(kind)
{
}

void PpcRecord::Publish()
{
    DirectoryOf(kind_).Add(this);
}

bool PpcRecord::Hold(Kind kind, void* handle)
{
    return DirectoryOf(kind).Hold(Of(handle));
}

bool PpcRecord::TakeFromOwner(Kind kind, void* handle)
{
    return DirectoryOf(kind).TakeFromOwner(Of(handle));
}

void PpcRecord::Release()
{
    uint32_t holders = holders_.load(std::memory_order_relaxed);
    while (holders > 1) {
        if (holders_.compare_exchange_weak(holders, holders - 1, std::memory_order_release,
                                           std::memory_order_relaxed)) {
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
    const bool first = (calls_.fetch_or(kRevoked, std::memory_order_acq_rel) & kRevoked) == 0;
    if (first) {
        *shownFd_ = -1;
        if (getpid() == creator_) {
            shutdown(fd_, SHUT_RDWR);
        }
    }
    LeaveCall();
}

void PpcRecord::CloseDescriptor()
{
    close(fd_);
    Release();
}

PpcSessionRef::PpcSessionRef(void* handle) : handle_(handle)
{
    if (PpcRecord::Hold(PpcRecord::Kind::kSession, handle)) {
        record_ = PpcRecord::Of(handle);
    }
}

PpcSessionRef::PpcSessionRef(const PpcSessionRef& other) : handle_(other.handle_), record_(other.record_)
{
    if (record_ != nullptr) {
        record_->HoldAgain();
    }
}

PpcSessionRef::PpcSessionRef(PpcSessionRef&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)), record_(std::exchange(other.record_, nullptr))
{
}

PpcSessionRef& PpcSessionRef::operator=(PpcSessionRef other) noexcept
{
    std::swap(handle_, other.handle_);
    std::swap(record_, other.record_);
    return *this;
}

PpcSessionRef::~PpcSessionRef()
{
    if (record_ != nullptr) {
        record_->Release();
    }
}

void PpcStopAccept(void* server)
{
    if (!PpcRecord::Hold(PpcRecord::Kind::kServer, server)) {
        return;
    }
    PpcRecord* record = PpcRecord::Of(server);
    const PpcHolding holding(record);
    record->Revoke();
}

}  // namespace ppc
