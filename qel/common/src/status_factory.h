#ifndef GAKPPC_STATUS_FACTORY_H
#define GAKPPC_STATUS_FACTORY_H

#include <cstdint>
#include <string>

#include "gakppc_export.h"

namespace qel {

// The process-wide registry from status numbers to their texts. It knows the whole shared table (status_table.h) from
// load time on; embedding processes may register further numbers. Any thread may call anything here at any time, also
// while the process exits: the registry is never destroyed.
class GAKPPC_API StatusFactory {
public:
    static StatusFactory& GetInstance();

    // Registers `text` for `status`. The first registration of a number wins: a later one changes nothing and reports
    // nothing. Raises std::bad_alloc when memory runs out; the registry is then unchanged.
    void RegisterErrorNo(uint32_t status, const std::string& text);

    // Returns the text of `status`, empty when it is not registered.
    std::string GetErrDesc(uint32_t status);

    // GetErrDesc of the one instance.
    static std::string GetErrCodeDesc(uint32_t status);

    StatusFactory(const StatusFactory&) = delete;
    StatusFactory& operator=(const StatusFactory&) = delete;

private:
    template <typename T>
    friend class NoDestroy;
    StatusFactory() = default;
    ~StatusFactory() = default;
};

// Registers one number when it is constructed: components that bring numbers of their own define one static object for
// each.
class ErrorNoRegisterar {
public:
    ErrorNoRegisterar(uint32_t status, const std::string& text)
    {
        StatusFactory::GetInstance().RegisterErrorNo(status, text);
    }
    ~ErrorNoRegisterar() {}
};

}  // namespace qel

#endif
