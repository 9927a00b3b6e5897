#ifndef GAKPPC_LAST_EXIT_HANDLER_H
#define GAKPPC_LAST_EXIT_HANDLER_H

#include <unistd.h>

namespace gaktest {

// Ends a forked child that has set `code` or `decide` as soon as the library's exit handlers have run. What comes after
// them is the leak checker of a sanitizer, which takes what the parent's threads hold for leaked, because their stacks
// are not in the child.
class LastExitHandler {
public:
    ~LastExitHandler()
    {
        const int status = decide != nullptr ? decide() : code;
        if (status >= 0) {
            _exit(status);
        }
    }
    static inline int code = -1;
    static inline int (*decide)() = nullptr;  // gives the code instead, from what the exit handlers have done
};
inline const LastExitHandler lastExitHandler;  // made before main, so that it goes last

}  // namespace gaktest

#endif
