#include "handler_table.h"

#include <utility>

#include "tracepoints.h"

namespace qel {
namespace {

thread_local bool insideHandler = false;

class InsideHandler {
public:
    explicit InsideHandler(const PPCMessage& msg) : msg_(msg), outer_(std::exchange(insideHandler, true))
    {
        GAKPPC_TRACE(handler_entered, msg_.type(), msg_.src_id(), msg_.sub_proc_pid());
    }
    ~InsideHandler()
    {
        insideHandler = outer_;
        GAKPPC_TRACE(handler_left, msg_.type(), msg_.src_id(), msg_.sub_proc_pid());
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
    GAKPPC_TRACE(handler_waiting, msg.type(), msg.src_id(), msg.sub_proc_pid());
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
