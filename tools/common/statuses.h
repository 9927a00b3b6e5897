#ifndef GAKPPC_STATUSES_H
#define GAKPPC_STATUSES_H

#include <cstdint>
#include <string>
#include <vector>

namespace tools {

// A status number of the system, or a code of the driver.
struct Status {
    uint32_t number = 0;
    const char* constant = nullptr;  // null for one that has none
    const char* text = nullptr;      // null for one that is not known
    bool isDriverCode = false;
};

// All that are known: the status table, then the driver's codes.
const std::vector<Status>& AllStatuses();

// Null for a number that is not known.
const Status* FindStatus(uint32_t number);

// "kStatusPpcNoSession (0x1093036)", "PPC_ERR_RECV (26)", or the number alone where there is no constant.
std::string StatusLabel(uint32_t number);

}  // namespace tools

#endif
