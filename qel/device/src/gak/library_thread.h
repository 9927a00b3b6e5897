#ifndef GAKPPC_LIBRARY_THREAD_H
#define GAKPPC_LIBRARY_THREAD_H

#include <functional>
#include <thread>

namespace qel {

// Starts a thread that receives no asynchronous signal: those belong to the threads of the embedding process. The
// caller's own mask is afterwards as it was. Raises std::system_error when the thread cannot be started and
// std::bad_alloc when memory runs out. Nothing may be thrown out of `body`.
std::thread StartLibraryThread(std::function<void()> body);

}  // namespace qel

#endif
