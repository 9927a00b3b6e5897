// What the compiler calls for -fsanitize=thread: before every access to memory, instead of every atomic operation, and
// at the beginning and end of every function.

#include <cstddef>
#include <cstdint>

#include "memory_checker.h"
#include "scheduler.h"

namespace {

using gaktest::Access;
using gaktest::Op;
using gaktest::self;

void Check(const volatile void* address, size_t size, Access access, const void* returnAddress)
{
    if (self != nullptr) {
        gaktest::CheckAccess(reinterpret_cast<uintptr_t>(address), size, access, gaktest::PlaceOf(returnAddress));
    }
}

// ---- Atomic operations ----

bool Acquires(int order)
{
    return order != __ATOMIC_RELAXED && order != __ATOMIC_RELEASE;
}

bool Releases(int order)
{
    return order == __ATOMIC_RELEASE || order == __ATOMIC_ACQ_REL || order == __ATOMIC_SEQ_CST;
}

template <typename T>
void Begin(Op op, const volatile T* object, Access access, const void* returnAddress)
{
    const void* const address = const_cast<const T*>(object);
    gaktest::Do({op, gaktest::PlaceOf(returnAddress), address});
    Check(object, sizeof(T), access, returnAddress);
}

template <typename T>
T Load(const volatile T* object, int order, const void* returnAddress)
{
    if (self != nullptr) {
        Begin(Op::kLoad, object, Access::kAtomicRead, returnAddress);
        if (Acquires(order)) {
            gaktest::Acquire(gaktest::SyncAt(const_cast<const T*>(object)));
        }
    }
    return __atomic_load_n(object, __ATOMIC_SEQ_CST);
}

template <typename T>
void Store(volatile T* object, T value, int order, const void* returnAddress)
{
    if (self != nullptr) {
        Begin(Op::kStore, object, Access::kAtomicWrite, returnAddress);
        gaktest::SyncObject& sync = gaktest::SyncAt(const_cast<const T*>(object));
        if (Releases(order)) {
            gaktest::ReleaseAlone(sync);
        } else {
            gaktest::ReleaseNothing(sync);
        }
    }
    __atomic_store_n(object, value, __ATOMIC_SEQ_CST);
}

template <typename T>
void Order(const volatile T* object, int order)
{
    gaktest::SyncObject& sync = gaktest::SyncAt(const_cast<const T*>(object));
    if (Acquires(order)) {
        gaktest::Acquire(sync);
    }
    if (Releases(order)) {
        gaktest::Release(sync);
    }
}

template <typename T, typename Change>
T Modify(volatile T* object, int order, const void* returnAddress, const Change& change)
{
    if (self != nullptr) {
        Begin(Op::kReadModifyWrite, object, Access::kAtomicWrite, returnAddress);
        Order(object, order);
    }
    return change();
}

// The C library's and this file's own code is the only one that runs between load and store.
template <typename T>
int CompareExchange(volatile T* object, T* expected, T desired, bool weak, int order, int failureOrder,
                    const void* returnAddress)
{
    if (self == nullptr) {
        return __atomic_compare_exchange_n(object, expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    }
    Begin(Op::kReadModifyWrite, object, Access::kAtomicWrite, returnAddress);
    const bool fails = *object != *expected || (weak && gaktest::OneIn(16));
    if (fails) {
        *expected = *object;
        if (Acquires(failureOrder)) {
            gaktest::Acquire(gaktest::SyncAt(const_cast<const T*>(object)));
        }
        return 0;
    }
    Order(object, order);
    *object = desired;
    return 1;
}

}  // namespace

#define HERE __builtin_return_address(0)

#define FOR_SIZE(size) \
    void __tsan_read##size(void* address) \
    { \
        Check(address, size, Access::kRead, HERE); \
    } \
    void __tsan_write##size(void* address) \
    { \
        Check(address, size, Access::kWrite, HERE); \
    } \
    void __tsan_read_write##size(void* address) \
    { \
        Check(address, size, Access::kWrite, HERE); \
    } \
    void __tsan_unaligned_read##size(void* address) \
    { \
        Check(address, size, Access::kRead, HERE); \
    } \
    void __tsan_unaligned_write##size(void* address) \
    { \
        Check(address, size, Access::kWrite, HERE); \
    } \
    void __tsan_unaligned_read_write##size(void* address) \
    { \
        Check(address, size, Access::kWrite, HERE); \
    } \
    void __tsan_volatile_read##size(void* address) \
    { \
        Check(address, size, Access::kRead, HERE); \
    } \
    void __tsan_volatile_write##size(void* address) \
    { \
        Check(address, size, Access::kWrite, HERE); \
    }

#define FOR_CHANGE(bits, name) \
    uint##bits##_t __tsan_atomic##bits##_fetch_##name(volatile uint##bits##_t* object, uint##bits##_t value, \
                                                      int order) \
    { \
        return Modify(object, order, HERE, [&] { return __atomic_fetch_##name(object, value, __ATOMIC_SEQ_CST); }); \
    }

#define FOR_COMPARE(bits, kind, isWeak) \
    int __tsan_atomic##bits##_compare_exchange_##kind(volatile uint##bits##_t* object, uint##bits##_t* expected, \
                                                      uint##bits##_t desired, int order, int failureOrder) \
    { \
        return CompareExchange(object, expected, desired, isWeak, order, failureOrder, HERE); \
    }

#define FOR_ATOMIC(bits) \
    uint##bits##_t __tsan_atomic##bits##_load(const volatile uint##bits##_t* object, int order) \
    { \
        return Load(object, order, HERE); \
    } \
    void __tsan_atomic##bits##_store(volatile uint##bits##_t* object, uint##bits##_t value, int order) \
    { \
        Store(object, value, order, HERE); \
    } \
    uint##bits##_t __tsan_atomic##bits##_exchange(volatile uint##bits##_t* object, uint##bits##_t value, int order) \
    { \
        return Modify(object, order, HERE, [&] { return __atomic_exchange_n(object, value, __ATOMIC_SEQ_CST); }); \
    } \
    FOR_CHANGE(bits, add) \
    FOR_CHANGE(bits, sub) \
    FOR_CHANGE(bits, and) \
    FOR_CHANGE(bits, or) \
    FOR_CHANGE(bits, xor) \
    FOR_COMPARE(bits, strong, false) \
    FOR_COMPARE(bits, weak, true) \
    uint##bits##_t __tsan_atomic##bits##_compare_exchange_val( \
        volatile uint##bits##_t* object, uint##bits##_t expected, uint##bits##_t desired, int order, int failureOrder) \
    { \
        CompareExchange(object, &expected, desired, false, order, failureOrder, HERE); \
        return expected; \
    }

extern "C" {

void __tsan_init() {}

void __tsan_func_entry(void* callSite)
{
    if (self == nullptr) {
        return;
    }
    if (self->depth == static_cast<int>(sizeof(self->frames) / sizeof(self->frames[0]))) {
        gaktest::Found("calls are nested too deeply");
    }
    self->frames[self->depth++] = {reinterpret_cast<uintptr_t>(callSite), reinterpret_cast<uintptr_t>(HERE)};
}

void __tsan_func_exit()
{
    // A function that was entered before the run began may return in it.
    if (self != nullptr && self->depth > 0) {
        --self->depth;
    }
}

FOR_SIZE(1)
FOR_SIZE(2)
FOR_SIZE(4)
FOR_SIZE(8)
FOR_SIZE(16)

void __tsan_read_range(void* address, size_t size)
{
    Check(address, size, Access::kRead, HERE);
}

void __tsan_write_range(void* address, size_t size)
{
    Check(address, size, Access::kWrite, HERE);
}

void __tsan_vptr_read(void** address)
{
    Check(address, sizeof(*address), Access::kRead, HERE);
}

void __tsan_vptr_update(void** address, void* value)
{
    if (*address != value) {
        Check(address, sizeof(*address), Access::kWrite, HERE);
    }
}

FOR_ATOMIC(8)
FOR_ATOMIC(16)
FOR_ATOMIC(32)
FOR_ATOMIC(64)

void __tsan_atomic_thread_fence(int)
{
    if (self != nullptr) {
        gaktest::Found("fences cannot be judged here: give the order to the atomic operations");
    }
}

void __tsan_atomic_signal_fence(int) {}

}  // extern "C"
