#include "status_factory.h"

#include <algorithm>
#include <array>
#include <map>

#include "mutex.h"
#include "no_destructor.h"
#include "status_table.h"

namespace qel {
namespace {

struct StatusText {
    uint32_t status;
    const char* text;
};

constexpr StatusText kTableInOrder[] = {
#define GAKPPC_STATUS_ROW(status, text) {status, text},
    GAKPPC_STATUS_TABLE(GAKPPC_STATUS_ROW)
#undef GAKPPC_STATUS_ROW
};
constexpr size_t kTableSize = sizeof(kTableInOrder) / sizeof(kTableInOrder[0]);
static_assert(kTableSize == 251, "the shared table has 251 rows");

// The compiler sorts the table, so that loading the library costs nothing and a look-up in it takes no lock.
// not covered: runs in the compiler only
constexpr std::array<StatusText, kTableSize> SortedTable()
{
    std::array<StatusText, kTableSize> sorted{};
    for (size_t row = 0; row < kTableSize; ++row) {
        size_t at = row;
        for (; at > 0 && kTableInOrder[row].status < sorted[at - 1].status; --at) {
            sorted[at] = sorted[at - 1];
        }
        sorted[at] = kTableInOrder[row];
    }
    return sorted;
}
constexpr std::array<StatusText, kTableSize> kTable = SortedTable();

// not covered: runs in the compiler only
constexpr bool StatusNumbersAreUnique()
{
    for (size_t row = 1; row < kTableSize; ++row) {
        if (kTable[row - 1].status == kTable[row].status) {
            return false;
        }
    }
    return true;
}
static_assert(StatusNumbersAreUnique(), "a status number stands twice in the shared table");

const char* FindInTable(uint32_t status)
{
    const auto row = std::lower_bound(kTable.begin(), kTable.end(), status,
                                      [](const StatusText& entry, uint32_t wanted) { return entry.status < wanted; });
    return row != kTable.end() && row->status == status ? row->text : nullptr;
}

// The numbers that embedding processes registered in addition to the table.
struct Registered {
    Mutex mutex;
    std::map<uint32_t, std::string> descriptions GAKPPC_GUARDED_BY(mutex);
};

Registered& GetRegistered()
{
    static NoDestructor<Registered> registered;
    return *registered;
}

}  // namespace

StatusFactory& StatusFactory::GetInstance()
{
    static NoDestructor<StatusFactory> instance;
    return *instance;
}

void StatusFactory::RegisterErrorNo(uint32_t status, const std::string& text)
{
    if (FindInTable(status) != nullptr) {
        return;
    }
    Registered& registered = GetRegistered();
    MutexLock lock(registered.mutex);
    registered.descriptions.emplace(status, text);
}

std::string StatusFactory::GetErrDesc(uint32_t status)
{
    if (const char* text = FindInTable(status)) {
        return text;
    }
    Registered& registered = GetRegistered();
    MutexLock lock(registered.mutex);
    const auto found = registered.descriptions.find(status);
    return found == registered.descriptions.end() ? std::string() : found->second;
}

std::string StatusFactory::GetErrCodeDesc(uint32_t status)
{
    return GetInstance().GetErrDesc(status);
}

}  // namespace qel
