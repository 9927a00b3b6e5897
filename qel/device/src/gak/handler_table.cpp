#include "handler_table.h"

#include <cxxabi.h>

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

// Returns what the handler raised.
std::exception_ptr Call(HandlerTable::Handler handler, const PPCMessage& msg)
{
    const InsideHandler inside;
    try {
        handler(msg);
        return nullptr;
    } catch (const abi::__forced_unwind&) {
        throw;  // the handler ends this thread
    } catch (...) {
        return std::current_exception();
    }
}

}  // namespace

bool HandlerTable::Register(uint32_t type, Handler handler)
{
    MutexLock lock(mutex_);
    return handlers_.emplace(type, handler).second;
}

HandlerTable::Outcome HandlerTable::Dispatch(const PPCMessage& msg)
{
    MutexLock lock(mutex_);
    const auto found = handlers_.find(static_cast<uint32_t>(msg.type()));
    if (found == handlers_.end()) {
        return {false, nullptr};
    }
    return {true, found->second == nullptr ? nullptr : Call(found->second, msg)};
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
