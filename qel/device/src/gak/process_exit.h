#ifndef GAKPPC_PROCESS_EXIT_H
#define GAKPPC_PROCESS_EXIT_H

namespace qel {

// Calls OnProcessExit of a never-destroyed singleton when the process runs its exit handlers.
template <typename T>
class ProcessExit {
public:
    explicit ProcessExit(T& object) : object_(object) {}
    ~ProcessExit() { object_.OnProcessExit(); }
    ProcessExit(const ProcessExit&) = delete;
    ProcessExit& operator=(const ProcessExit&) = delete;

private:
    T& object_;
};

}  // namespace qel

#endif
