#ifndef GAKPPC_PPC_RECORD_H
#define GAKPPC_PPC_RECORD_H

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

#include "memguard.h"
#include "mutex.h"
#include "ppc.h"
#include "ppc_types.h"

// Lifetime of the driver's records, that is of sessions and server endpoints.
//
// A handle points at the visible part of a record. A hidden PpcRecord stands in front of it and counts
//   - calls in flight on the descriptor: the descriptor is closed when the record has been revoked and the last call
//     has left, so its number is never used again under a call;
//   - holders of the record: the handle's owner until it ends the record, the open descriptor, and everybody who may
//     still use the handle (a session table entry, a receive thread, a sender). The last one to leave retires the
//     record. While anybody holds it, its address cannot come back as another session.
// A retired record stays readable until a fixed number of later ones of its kind have been retired, so that a handle
// used a little too late is recognised as ended. Nobody ever waits for a call or a holder to leave.
//
// Entering and leaving a call takes no lock: one atomic step each. The directory of records has one leaf mutex for
// each kind, taken only to publish, look up, end and retire a record.

namespace ppc {

class PpcRecord {
public:
    enum class Kind : uint8_t { kSession, kServer };

    // Takes over `fd`. `shownFd` is the descriptor field of the visible part; it reads -1 once the record is revoked.
    PpcRecord(Kind kind, int fd, std::atomic<int32_t>* shownFd);
    PpcRecord(const PpcRecord&) = delete;
    PpcRecord& operator=(const PpcRecord&) = delete;

    // Pure arithmetic: the result may be looked behind only if the directory knows the handle.
    static PpcRecord* Of(void* handle)
    {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): a foreign pointer need not point into an object
        return reinterpret_cast<PpcRecord*>(reinterpret_cast<uintptr_t>(handle) - sizeof(PpcRecord));
    }

    // Enters the record in the directory: from now on its handle is known.
    void Publish();

    // Makes the caller a holder, also of an ended record. False for a handle that is not known, which is never looked
    // behind.
    static bool Hold(Kind kind, void* handle);
    void HoldAgain() { holders_.fetch_add(1, std::memory_order_relaxed); }  // by a holder only
    void Release();

    // Ends the record for its owner, whose holding passes to the caller. False when the handle is not known or another
    // caller was first.
    static bool TakeFromOwner(Kind kind, void* handle);

    // A call in flight. False, without entering, when the record has been revoked.
    bool EnterCall()
    {
        uint32_t calls = calls_.load(std::memory_order_relaxed);
        while ((calls & kRevoked) == 0) {
            if (calls_.compare_exchange_weak(calls, calls + 1, std::memory_order_acquire, std::memory_order_relaxed)) {
                return true;
            }
        }
        return false;
    }
    void LeaveCall()
    {
        if (calls_.fetch_sub(1, std::memory_order_acq_rel) == (kRevoked | 1U)) {
            CloseDescriptor();
        }
    }

    // Stops the descriptor: new calls find -1, calls in flight are woken by shutting the socket down, and the
    // descriptor is closed as soon as the last of them has left. Revoking again does nothing.
    void Revoke();

    // Constant after construction: the descriptor as it was created, for log lines after it has been revoked.
    int CreatedFd() const { return fd_; }
    int ShownFd() const { return *shownFd_; }

    // Held by a sender for one frame: the kernel may split a long frame, and two of them must not mix.
    qel::Mutex& SendTurn() GAKPPC_ANNOTATE(lock_returned(sendTurn_)) { return sendTurn_; }

private:
    friend class RecordDirectory;

    static constexpr uint32_t kRevoked = 0x80000000U;

    void CloseDescriptor();

    // Constant after construction.
    const int fd_;
    const pid_t creator_;
    std::atomic<int32_t>* const shownFd_;
    const Kind kind_;

    // Self-synchronised.
    std::atomic<uint32_t> calls_{0};    // kRevoked, and the number of calls in flight
    std::atomic<uint32_t> holders_{2};  // at first the owner and the open descriptor; 0 is entered and left only under
                                        // the directory's mutex
    qel::Mutex sendTurn_;

    // Guarded by the directory's mutex.
    bool ended_ = false;
    PpcRecord* nextInBucket_ = nullptr;
    PpcRecord* olderRetired_ = nullptr;
    PpcRecord* newerRetired_ = nullptr;
};

// Lets go of a holding at the end of a scope.
class PpcHolding {
public:
    explicit PpcHolding(PpcRecord* record) : record_(record) {}
    ~PpcHolding() { record_->Release(); }
    PpcHolding(const PpcHolding&) = delete;
    PpcHolding& operator=(const PpcHolding&) = delete;

private:
    PpcRecord* const record_;
};

// One call in flight on a session or server endpoint, for the length of a scope.
class PpcCall {
public:
    explicit PpcCall(PpcRecord* record)
        : record_(record), entered_(record->EnterCall()), fd_(entered_ ? record->ShownFd() : -1)
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

private:
    PpcRecord* const record_;
    const bool entered_;
    const int fd_;
};

// A descriptor until somebody else owns it.
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
            close(fd_);
        }
    }

    int Get() const { return fd_; }
    int Release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

// A driver record: what callers see, and in front of it what they don't.
template <typename Visible>
struct RecordBlock {
    PpcRecord hidden;
    Visible visible;
};

// Makes the record that owns `fd` from then on. PPC_ERR_NO_MEMORY or PPC_ERR_INVALID_VALUE (memset_s failed) leave
// both arguments as they are.
template <typename Visible>
int CreateRecord(PpcRecord::Kind kind, OwnFd& fd, Visible** created)
{
    using Block = RecordBlock<Visible>;
    static_assert(offsetof(Block, visible) == sizeof(PpcRecord), "the handle must follow the hidden part at once");
    void* memory = malloc(sizeof(Block));
    if (memory == nullptr) {
        return PPC_ERR_NO_MEMORY;
    }
    if (memset_s(memory, sizeof(Block), 0, sizeof(Block)) != 0) {
        free(memory);
        return PPC_ERR_INVALID_VALUE;
    }
    Block* block = static_cast<Block*>(memory);
    Visible* visible = new (&block->visible) Visible{};
    FillIn(*visible, fd.Get());
    PpcRecord* record = new (&block->hidden) PpcRecord(kind, fd.Release(), &DescriptorOf(*visible));
    record->Publish();
    *created = visible;
    return PPC_OK;
}

// Keeps a session's record alive for the layers above, which store handles for longer than a call. A pointer that the
// driver did not hand out (embedding processes may put their own transport underneath) is carried along without ever
// being looked behind.
class PpcSessionRef {
public:
    PpcSessionRef() = default;
    explicit PpcSessionRef(void* handle);
    PpcSessionRef(const PpcSessionRef& other);
    PpcSessionRef(PpcSessionRef&& other) noexcept;
    PpcSessionRef& operator=(PpcSessionRef other) noexcept;
    ~PpcSessionRef();

    void* Get() const { return handle_; }
    bool IsHeld() const { return record_ != nullptr; }

private:
    void* handle_ = nullptr;
    PpcRecord* record_ = nullptr;  // null for a foreign pointer
};

// Wakes every thread that waits in drvPpcSessionAccept on `server` and makes it return PPC_ERR_SOCKET_CLOSED, without
// destroying the endpoint. Does nothing for an endpoint that the driver did not create.
void PpcStopAccept(void* server);

}  // namespace ppc

#endif
