#ifndef GAKPPC_ADMISSION_H
#define GAKPPC_ADMISSION_H

#include <string>

#include "facts.h"

namespace tools {

// How a user who is refused gets access. `repair` is empty when no command is known that does it and harms nothing;
// `advice` says what else there is to do.
struct Admission {
    std::string repair;
    std::string advice;
};

Admission AdmissionOf(const Facts& facts);

// The first path on the way to the socket whose permissions stop the user. Empty when none of them does.
std::string BarrierOf(const Attempt& attempt);

}  // namespace tools

#endif
