#ifndef GAKPPC_NO_DESTRUCTOR_H
#define GAKPPC_NO_DESTRUCTOR_H

#include <new>
#include <utility>

namespace qel {

// Storage for a process-wide object whose destructor never runs. Threads may still be inside the library while the
// process runs its exit handlers, so what they use (logger, registry, mutexes, tables) must outlive every one of them.
// Needs no heap: a function-local `static NoDestructor<T>` constructs T in place, once.
template <typename T>
class NoDestructor {
public:
    template <typename... Args>
    explicit NoDestructor(Args&&... args) : object_(new (storage_) T(std::forward<Args>(args)...))
    {
    }
    NoDestructor(const NoDestructor&) = delete;
    NoDestructor& operator=(const NoDestructor&) = delete;

    T& operator*() { return *object_; }
    T* operator->() { return object_; }

private:
    alignas(T) unsigned char storage_[sizeof(T)];
    T* const object_;
};

}  // namespace qel

#endif
