#ifndef GAKPPC_HANDLER_TABLE_H
#define GAKPPC_HANDLER_TABLE_H

#include <cstdint>
#include <exception>
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

    struct Outcome {
        bool found;                  // an entry for the type, perhaps a null handler, which drops the message
        std::exception_ptr failure;  // what the handler raised
    };
    // Calls the handler of the message's type. A handler that ends its thread unwinds through here.
    Outcome Dispatch(const PPCMessage& msg);

    void Clear();

    // Whether the calling thread is inside a handler.
    static bool IsInsideHandler();

private:
    Mutex mutex_;
    std::map<uint32_t, Handler> handlers_ GAKPPC_GUARDED_BY(mutex_);
};

}  // namespace qel

#endif
