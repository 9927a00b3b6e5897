#ifndef GAKPPC_SANITIZER_OPTIONS_H
#define GAKPPC_SANITIZER_OPTIONS_H

namespace gaktest {

// Whether a sanitizer watches: what a process then takes of memory and time says little about the library.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kUnderSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kUnderSanitizer = true;
#else
constexpr bool kUnderSanitizer = false;
#endif
#else
constexpr bool kUnderSanitizer = false;
#endif

// Whether the processor is emulated.
#if defined(GAKPPC_EMULATED)
constexpr bool kUnderEmulator = true;
#else
constexpr bool kUnderEmulator = false;
#endif

// Whether the memory and the time that a process takes are its own: sanitizers and emulators take several times more.
constexpr bool kMeasuresAreOwn = !kUnderSanitizer && !kUnderEmulator;

// Makes a test program ready to be run under a sanitizer; does nothing in other builds. To be called before any test.
// The options that every test program runs with come along (the variables ASAN_OPTIONS, UBSAN_OPTIONS and TSAN_OPTIONS
// add to them).
void PrepareForSanitizers();

}  // namespace gaktest

#endif
