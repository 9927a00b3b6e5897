#ifndef GAKPPC_STATUS_FACTORY_H
#define GAKPPC_STATUS_FACTORY_H

/// @file
/// Texts of status numbers.

#include <cstdint>
#include <string>

#include "gakppc_export.h"

namespace qel {

/// The process-wide registry from status numbers to their texts.
///
/// It knows the whole shared table (status_table.h) from load time on; embedding processes may register further
/// numbers. Any thread may call anything here at any time, also while the process exits: the registry is never
/// destroyed.
class GAKPPC_API StatusFactory {
public:
    /// @return The one registry.
    static StatusFactory& GetInstance();

    /// Registers a text. The first registration of a number wins: a later one changes nothing and reports nothing.
    ///
    /// @param status  The number.
    /// @param text    Its text, which is copied.
    /// @throws std::bad_alloc when memory runs out; the registry is then unchanged.
    void RegisterErrorNo(uint32_t status, const std::string& text);

    /// Finds the text of a number.
    ///
    /// @param status  The number.
    /// @return Its text, empty when it is not registered.
    /// @throws std::bad_alloc when there is no memory for the copy.
    std::string GetErrDesc(uint32_t status);

    /// GetErrDesc() of the one registry.
    ///
    /// @param status  The number.
    /// @return What GetErrDesc() returns.
    /// @throws std::bad_alloc as GetErrDesc() does.
    static std::string GetErrCodeDesc(uint32_t status);

    /// Not copied: there is one.
    StatusFactory(const StatusFactory&) = delete;
    /// Not copied: there is one.
    StatusFactory& operator=(const StatusFactory&) = delete;

private:
    template <typename T>
    friend class NoDestructor;
    StatusFactory() = default;
    ~StatusFactory() = default;
};

/// Registers one number when it is constructed: components that bring numbers of their own define one static object for
/// each.
class ErrorNoRegisterar {
public:
    /// StatusFactory::RegisterErrorNo() of the one registry.
    ///
    /// @param status  The number.
    /// @param text    Its text, which is copied.
    ErrorNoRegisterar(uint32_t status, const std::string& text)
    {
        StatusFactory::GetInstance().RegisterErrorNo(status, text);
    }
    /// The number stays registered.
    ~ErrorNoRegisterar() {}
};

}  // namespace qel

#endif
