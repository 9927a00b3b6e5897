#ifndef GAKPPC_DRIVER_CALLS_H
#define GAKPPC_DRIVER_CALLS_H

#include <cstdint>
#include <optional>

#include "fault.h"
#include "ppc.h"

// The driver's functions, as codec and server call them, for CountingHook.
namespace gaktest {

struct DriverInit : gaktest::calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcInit";
    using Signature = int();
};
struct DriverServerCreate : gaktest::calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcServerCreate";
    using Signature = int(int, PpcServerHead**);
};
struct DriverServerDestroy : gaktest::calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcServerDestroy";
    using Signature = int(PpcServerHead*);
};
struct DriverSessionAccept : gaktest::calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcSessionAccept";
    using Signature = int(PpcServerHead*, PpcSession**);
};
struct DriverSessionClose : gaktest::calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcSessionClose";
    using Signature = int(PpcSession*);
};
struct DriverAllocMsg : gaktest::calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcAllocMsg";
    using Signature = int(PpcSession*, PpcMsg**, int);
};
struct DriverFreeMsg : gaktest::calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcFreeMsg";
    using Signature = int(PpcMsg*);
};
struct DriverAddMsgBuffer : gaktest::calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcAddMsgBuffer";
    using Signature = int(PpcMsg*, void*, int);
};
struct DriverGetMsgBuffer : gaktest::calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcGetMsgBuffer";
    using Signature = int(PpcMsg*, int, void**, uint32_t*);
};
struct DriverSend : gaktest::calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcSend";
    using Signature = int(PpcSession*, PpcMsg*, uint32_t);
};
struct DriverRecv : gaktest::calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcRecv";
    using Signature = int(PpcSession*, PpcMsg*, uint32_t, uint32_t, uint32_t*);
};

// A driver function that does its work and reports `code` all the same.
template <typename Call>
class FailingHook {
public:
    explicit FailingHook(int code)
    {
        hook_.OnCall([code](uint64_t, auto... args) -> std::optional<int> {
            gaktest::CountingHook<Call>::Real(args...);
            return code;
        });
    }

    uint64_t Count() const { return hook_.Count(); }

private:
    gaktest::CountingHook<Call> hook_;
};

}  // namespace gaktest

#endif
