#ifndef GAKPPC_AT_EXIT_H
#define GAKPPC_AT_EXIT_H

namespace qel {

// Calls OnProcessExit of a never-destroyed singleton when the process runs its exit handlers.
template <typename T>
class AtExit {
public:
    explicit AtExit(T& object) : object_(object) {}
    ~AtExit() { object_.OnProcessExit(); }
    AtExit(const AtExit&) = delete;
    AtExit& operator=(const AtExit&) = delete;

private:
    T& object_;
};

}  // namespace qel

#endif
