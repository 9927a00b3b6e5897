#ifndef GAKPPC_SANITIZER_OPTIONS_H
#define GAKPPC_SANITIZER_OPTIONS_H

namespace testsupport {

// Makes a test program ready to be run under a sanitizer; does nothing in other builds. To be called before any test.
// The options that every test program runs with come along (the variables ASAN_OPTIONS, UBSAN_OPTIONS and TSAN_OPTIONS
// add to them).
void PrepareForSanitizers();

}  // namespace testsupport

#endif
