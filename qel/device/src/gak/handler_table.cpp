#include "handler_table.h"

#include <utility>

#include "tracepoints.h"

namespace qel {
namespace {

thread_local bool insideHandler = false;

__attribute__((cold)) tracepoint::Handled Traced(const PPCMessage& msg)
{
    return {msg.type(), msg.src_id(), msg.sub_proc_pid()};
}

class InsideHandler {
public:
    explicit InsideHandler(const PPCMessage& msg) : msg_(msg), outer_(std::exchange(insideHandler, true))
    {
        GAKPPC_TRACE(handler_entered, Traced(msg_));
    }
    ~InsideHandler()
    {
        insideHandler = outer_;
        GAKPPC_TRACE(handler_left, Traced(msg_));
    }
    InsideHandler(const InsideHandler&) = delete;
    InsideHandler& operator=(const InsideHandler&) = delete;

private:
    const PPCMessage& msg_;
    const bool outer_;
};

}  // namespace

bool HandlerTable::Register(uint32_t type, Handler handler)
{
    MutexLock lock(mutex_);
    return handlers_.emplace(type, handler).second;
}

bool HandlerTable::Dispatch(const PPCMessage& msg)
{
    GAKPPC_TRACE(handler_waiting, Traced(msg));
    MutexLock lock(mutex_);
    const auto found = handlers_.find(static_cast<uint32_t>(msg.type()));
    if (found == handlers_.end()) {
        return false;
    }
    if (found->second != nullptr) {
        const InsideHandler inside(msg);
        found->second(msg);
    }
    return true;
}

void HandlerTable::Clear()
{
    MutexLock lock(mutex_);
    handlers_.clear();
}

bool HandlerTable::IsInsideHandler()
{
    return insideHandler;
}

}  // namespace qel
