#ifndef GAKPPC_STRING_UTIL_H
#define GAKPPC_STRING_UTIL_H

#include <string>

#include "gakppc_export.h"

// Small text functions for the processes that load the library. Any thread may call them; they touch only their
// arguments. They raise std::bad_alloc or std::length_error as std::string does.
namespace qel {

// Remove the white space (std::isspace of the byte as unsigned) at both ends, at the head, at the tail. Work in place
// and return `s`; a text of white space alone becomes empty.
GAKPPC_API std::string& Trim(std::string& s);
GAKPPC_API std::string& LTrim(std::string& s);
GAKPPC_API std::string& RTrim(std::string& s);

// Replaces in place, left to right, every occurrence of `from` that begins at or after the end of the previous
// replacement; the replacement itself is never searched again. An empty `from` inserts `to` at position 0 and then
// after each inserted copy until the position passes the end that `s` had before; callers never pass both empty, which
// changes nothing here. Either may be `s` itself.
GAKPPC_API void ReplaceAllSubStrDistinct(std::string& s, const std::string& from, const std::string& to);

// Returns a copy of `in` that is safe in one log line: the bytes 7 to 13 become a backslash and one of the letters
// a b t n v f r, then "%0a" becomes "%%0a" and "%0d" becomes "%%0d" (lower case only). All other bytes stay.
GAKPPC_API std::string RemoveEscapeChar(const std::string& in);

}  // namespace qel

#endif
