#ifndef GAKPPC_NO_DESTROY_H
#define GAKPPC_NO_DESTROY_H

#include <new>
#include <utility>

namespace qel {

// Storage for a process-wide object whose destructor never runs. Threads may still be inside the library while the
// process runs its exit handlers, so what they use (logger, registry, mutexes, tables) must outlive every one of them.
// Needs no heap: a function-local `static NoDestroy<T>` constructs T in place, once.
template <typename T>
class NoDestroy {
public:
    template <typename... Args>
    explicit NoDestroy(Args&&... args) : object_(new (storage_) T(std::forward<Args>(args)...))
    {
    }
    NoDestroy(const NoDestroy&) = delete;
    NoDestroy& operator=(const NoDestroy&) = delete;

    T& operator*() { return *object_; }
    T* operator->() { return object_; }

private:
    alignas(T) unsigned char storage_[sizeof(T)];
    T* const object_;
};

}  // namespace qel

#endif
