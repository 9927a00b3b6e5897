#ifndef GAKPPC_STRING_UTIL_H
#define GAKPPC_STRING_UTIL_H

/// @file
/// Small text functions for the processes that load the library. Any thread may call them; they touch only their
/// arguments. They raise std::bad_alloc or std::length_error as std::string does.

#include <string>

#include "gakppc_export.h"

namespace qel {

/// Removes the white space (std::isspace of the byte as unsigned) at both ends.
///
/// @param s  Changed in place; a text of white space alone becomes empty.
/// @return `s`.
GAKPPC_API std::string& Trim(std::string& s);

/// Trim() at the head only.
///
/// @param s  Changed in place.
/// @return `s`.
GAKPPC_API std::string& LTrim(std::string& s);

/// Trim() at the tail only.
///
/// @param s  Changed in place.
/// @return `s`.
GAKPPC_API std::string& RTrim(std::string& s);

/// Replaces every occurrence of a text, left to right. The replacement itself is never searched again.
///
/// @param s     Changed in place.
/// @param from  What is replaced. When it is empty, `to` is inserted at position 0 and then after each inserted copy
///              until the position passes the end that `s` had before. May be `s` itself.
/// @param to    What takes its place. May be `s` itself. Callers never pass both empty, which changes nothing here.
GAKPPC_API void ReplaceAllSubStrDistinct(std::string& s, const std::string& from, const std::string& to);

/// Makes a text safe for one log line: the bytes 7 to 13 become a backslash and one of the letters a b t n v f r, then
/// "%0a" becomes "%%0a" and "%0d" becomes "%%0d" (lower case only). All other bytes stay.
///
/// @param in  The text.
/// @return The changed copy.
GAKPPC_API std::string RemoveEscapeChar(const std::string& in);

}  // namespace qel

#endif
