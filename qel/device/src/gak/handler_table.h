#ifndef GAKPPC_HANDLER_TABLE_H
#define GAKPPC_HANDLER_TABLE_H

#include <cstdint>
#include <map>

#include "mutex.h"
#include "qel_message.pb.h"

namespace qel {

// The daemon's handlers by message type. One handler runs at a time: it runs under the table's mutex, so it must not
// call this table's functions. Any thread may call any function otherwise.
class HandlerTable {
public:
    using Handler = void (*)(const PPCMessage&);

    // False when the type has a handler already, which stays. Raises std::bad_alloc.
    bool Register(uint32_t type, Handler handler);

    // Calls the handler of the message's type; a null handler drops the message. False when there is none. Raises what
    // the handler raises.
    bool Dispatch(const PPCMessage& msg);

    void Clear();

    // Whether the calling thread is inside a handler.
    static bool IsInsideHandler();

private:
    Mutex mutex_;
    std::map<uint32_t, Handler> handlers_ GAKPPC_GUARDED_BY(mutex_);
};

}  // namespace qel

#endif
