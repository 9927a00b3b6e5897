#include "handler_table.h"

#include <utility>

namespace qel {
namespace {

thread_local bool insideHandler = false;

class InsideHandler {
public:
    InsideHandler() : outer_(std::exchange(insideHandler, true)) {}
    ~InsideHandler() { insideHandler = outer_; }
    InsideHandler(const InsideHandler&) = delete;
    InsideHandler& operator=(const InsideHandler&) = delete;

private:
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
    MutexLock lock(mutex_);
    const auto found = handlers_.find(static_cast<uint32_t>(msg.type()));
    if (found == handlers_.end()) {
        return false;
    }
    if (found->second != nullptr) {
        const InsideHandler inside;
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
