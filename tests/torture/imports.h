#ifndef GAKPPC_IMPORTS_H
#define GAKPPC_IMPORTS_H

#include <string>
#include <vector>

namespace gaktest {

// The functions that libgakppc.so imports and that can fail, but that are not among the calls that are made to fail
// (see IsDisturbed): empty as long as nothing was forgotten.
std::vector<std::string> ForgottenImports();

}  // namespace gaktest

#endif
