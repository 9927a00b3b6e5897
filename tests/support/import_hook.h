#ifndef GAKPPC_IMPORT_HOOK_H
#define GAKPPC_IMPORT_HOOK_H

#include <cstdint>
#include <string>
#include <vector>

namespace gaktest {

// Replaces one function as seen by one loaded library, for the length of a scope: every pointer that the dynamic linker
// stored in that library for the symbol is rewritten. The test program and all other libraries keep the original.
// Works for imported functions (libc, the platform libraries) and for the library's own exported functions, which it
// calls through the dynamic linker as well.
//
//     ImportHook hook("writev", reinterpret_cast<void*>(&FakeWritev));
//     ssize_t FakeWritev(...) { return hook.original<decltype(&writev)>()(...); }
//
// The replacement must have the original's signature (for a variadic function: fixed parameters of the types that are
// passed, or a variadic one). Hooks of one symbol nest and must end in reverse order. Creating and ending a hook while
// other threads call the function is safe; a call that is inside the replacement stays there until it returns. A
// replacement must not call back into the library in a way that calls it again, unless it means to.
//
// A function that the library calls only indirectly, through another library, is not an import of it: std::thread, for
// instance, calls pthread_create inside libstdc++. Name that library as `library`.
class ImportHook {
public:
    // Throws std::runtime_error when no loaded library has that file name (compared without a version suffix: the name
    // must end at the end or before a dot) or when it does not import `symbol`.
    ImportHook(const std::string& symbol, void* replacement, const std::string& library = "libgakppc.so");
    ~ImportHook();
    ImportHook(const ImportHook&) = delete;
    ImportHook& operator=(const ImportHook&) = delete;

    // What the library would call without this hook.
    template <typename Fn>
    Fn original() const
    {
        return reinterpret_cast<Fn>(original_);
    }

private:
    struct Slot {
        uintptr_t* address;
        uintptr_t before;
    };

    std::vector<Slot> slots_;
    uintptr_t original_ = 0;
};

}  // namespace gaktest

#endif
