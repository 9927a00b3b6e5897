#ifndef GAKPPC_PPC_RECORD_H
#define GAKPPC_PPC_RECORD_H

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include "memguard.h"
#include "mutex.h"
#include "ppc.h"
#include "ppc_types.h"

// Lifetime of the driver's records, that is of sessions and server endpoints.
//
// A handle points at the public part of a record. A PpcRecord stands in front of it and counts
//   - calls in flight on the descriptor: the descriptor is closed when the record has been revoked and the last call
//     has left, so its number is never used again under a call;
//   - references to the record: of the handle's owner until it ends the record, of the open descriptor, and of everyone
//     who may still use the handle (a session table entry, a receive thread, a sender). Without references, the record
//     goes into quarantine. While there is one, its address cannot come back as another session.
// A record in quarantine stays readable until a fixed number of later ones of its kind have been put there, so that a
// handle used a little too late is recognised as ended. Nobody ever waits for a call to leave or a reference to go.
//
// Entering and leaving a call takes no lock: one atomic step each. The directory of records has one leaf mutex for
// each kind, taken only to publish, look up, end and quarantine a record.

namespace ppc {

class PpcRecordRef;

class PpcRecord {
public:
    enum class Kind : uint8_t { kSession, kServer };

    // Takes over `fd`. `publicFd` is the descriptor field of the public part; it reads -1 once the record is revoked.
    PpcRecord(Kind kind, int fd, std::atomic<int32_t>* publicFd);
    PpcRecord(const PpcRecord&) = delete;
    PpcRecord& operator=(const PpcRecord&) = delete;

    // Pure arithmetic: the result may be dereferenced only if the directory knows the handle.
    static PpcRecord* Of(void* handle)
    {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): an unknown handle need not point into an object
        return reinterpret_cast<PpcRecord*>(reinterpret_cast<uintptr_t>(handle) - sizeof(PpcRecord));
    }

    // Enters the record in the directory: from now on its handle is known.
    void Publish() noexcept;

    // A new reference, also to an ended record. Empty for a handle that is not known, which is never dereferenced.
    static PpcRecordRef Acquire(Kind kind, void* handle);

    // Ends the record for its owner, whose reference passes to the caller. Empty when the handle is not known or
    // another caller was first.
    static PpcRecordRef MarkEnded(Kind kind, void* handle);
    bool IsEnded() const { return (calls_.load(std::memory_order_relaxed) & kEnded) != 0; }

    void AddRef() { refs_.fetch_add(1, std::memory_order_relaxed); }  // by those who have a reference
    void Release();

    // A call in flight. False, without entering, when the record has been revoked. Entering needs no order: what a call
    // uses was published with the handle, and the descriptor's closing is ordered behind its leaving.
    bool EnterCall()
    {
        uint32_t calls = calls_.load(std::memory_order_relaxed);
        while ((calls & kRevoked) == 0) {
            if (calls_.compare_exchange_weak(calls, calls + 1, std::memory_order_relaxed)) {
                return true;
            }
        }
        return false;
    }
    void LeaveCall()
    {
        if ((calls_.fetch_sub(1, std::memory_order_acq_rel) & ~kEnded) == (kRevoked | 1U)) {
            CloseDescriptor();
        }
    }

    // Stops the descriptor: new calls find -1, calls in flight are woken by shutting the socket down, and the
    // descriptor is closed as soon as the last of them has left. Revoking again does nothing.
    void Revoke();

    // Constant after construction: the descriptor as it was created, for log lines after it has been revoked.
    int OriginalFd() const { return originalFd_; }
    int PublicFd() const { return publicFd_->load(std::memory_order_relaxed); }

    // Held for one frame: the kernel may split a long frame, and those of several senders must not mix.
    qel::Mutex& SendMutex() GAKPPC_ANNOTATE(lock_returned(sendMutex_)) { return sendMutex_; }

private:
    friend class RecordDirectory;

    static constexpr uint32_t kRevoked = 0x80000000U;
    static constexpr uint32_t kEnded = 0x40000000U;

    void CloseDescriptor();

    // Constant after construction.
    const int originalFd_;
    const pid_t creator_;
    std::atomic<int32_t>* const publicFd_;
    const Kind kind_;

    // Self-synchronised.
    std::atomic<uint32_t> calls_{0};  // kRevoked, kEnded, and the number of calls in flight. A call that finds a
                                      // record revoked because it has ended sees both in one value
    std::atomic<uint32_t> refs_{2};   // at first of the owner and of the open descriptor; 0 is entered and left only
                                      // under the directory's mutex
    qel::Mutex sendMutex_;

    // Guarded by the directory's mutex.
    PpcRecord* nextInBucket_ = nullptr;
    PpcRecord* quarantinedBefore_ = nullptr;
    PpcRecord* quarantinedAfter_ = nullptr;
};

// Owns one reference to a record, or none.
class PpcRecordRef {
public:
    explicit PpcRecordRef(PpcRecord* adopted = nullptr) : record_(adopted) {}
    PpcRecordRef(const PpcRecordRef& other) : record_(other.record_)
    {
        if (record_ != nullptr) {
            record_->AddRef();
        }
    }
    PpcRecordRef(PpcRecordRef&& other) noexcept : record_(std::exchange(other.record_, nullptr)) {}
    PpcRecordRef& operator=(PpcRecordRef other) noexcept
    {
        std::swap(record_, other.record_);
        return *this;
    }
    ~PpcRecordRef()
    {
        if (record_ != nullptr) {
            record_->Release();
        }
    }

    explicit operator bool() const { return record_ != nullptr; }
    PpcRecord* Get() const { return record_; }
    PpcRecord* operator->() const { return record_; }

private:
    PpcRecord* record_;
};

// One call in flight on a session or server endpoint, for the length of a scope.
class PpcCall {
public:
    explicit PpcCall(PpcRecord* record)
        : record_(record), entered_(record->EnterCall()), fd_(entered_ ? record->PublicFd() : -1)
    {
    }
    ~PpcCall()
    {
        if (entered_) {
            record_->LeaveCall();
        }
    }
    PpcCall(const PpcCall&) = delete;
    PpcCall& operator=(const PpcCall&) = delete;

    // -1 when the record had been revoked; otherwise this number stays the record's until the call leaves.
    int Fd() const { return fd_; }
    bool HasEntered() const { return entered_; }

private:
    PpcRecord* const record_;
    const bool entered_;
    const int fd_;
};

// A descriptor until somebody else owns it. Closing it keeps errno.
class OwnFd {
public:
    explicit OwnFd(int fd = -1) : fd_(fd) {}
    OwnFd(OwnFd&& other) noexcept : fd_(other.Release()) {}
    OwnFd& operator=(OwnFd&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~OwnFd()
    {
        if (fd_ >= 0) {
            const int savedErrno = errno;
            close(fd_);
            errno = savedErrno;
        }
    }

    int Get() const { return fd_; }
    int Release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

// Keeps errno.
struct FreeMemory {
    void operator()(void* memory) const
    {
        const int savedErrno = errno;
        free(memory);
        errno = savedErrno;
    }
};

// Makes a record and behind it the public part, which a handle points at. The record owns `fd` from then on.
// PPC_ERR_NO_MEMORY or PPC_ERR_INVALID_VALUE (memset_s failed, and errno is what it left) leave both arguments as they
// are.
template <typename Public>
int CreateRecord(PpcRecord::Kind kind, OwnFd& fd, Public** created)
{
    static_assert(sizeof(PpcRecord) % alignof(Public) == 0, "the handle must follow the record at once");
    constexpr size_t kSize = sizeof(PpcRecord) + sizeof(Public);
    std::unique_ptr<void, FreeMemory> memory(malloc(kSize));
    if (memory == nullptr) {
        return PPC_ERR_NO_MEMORY;
    }
    if (memset_s(memory.get(), kSize, 0, kSize) != 0) {
        return PPC_ERR_INVALID_VALUE;
    }
    auto* publicPart = new (static_cast<char*>(memory.get()) + sizeof(PpcRecord)) Public(fd.Get());
    auto* record = new (memory.release()) PpcRecord(kind, fd.Release(), &publicPart->fd);
    record->Publish();
    *created = publicPart;
    return PPC_OK;
}

// A handle and, if the driver made the session, a reference to its record, for the layers above, which store handles
// for longer than a call. Any other pointer (embedding processes may put their own transport underneath) is carried
// along and never dereferenced.
class PpcSessionRef {
public:
    PpcSessionRef() = default;
    explicit PpcSessionRef(void* handle)
        : handle_(handle), record_(PpcRecord::Acquire(PpcRecord::Kind::kSession, handle))
    {
    }

    void* Get() const { return handle_; }
    bool IsHeld() const { return static_cast<bool>(record_); }

private:
    void* handle_ = nullptr;
    PpcRecordRef record_;
};

// The descriptor that a session was created with, open or not. -1 for one that the driver did not make.
int PpcOriginalFd(void* session);

// Wakes every thread that waits in drvPpcSessionAccept on `server` and makes it return PPC_ERR_SOCKET_CLOSED, without
// destroying the endpoint. Does nothing for an endpoint that the driver did not create.
void PpcStopAccept(void* server);

}  // namespace ppc

#endif
