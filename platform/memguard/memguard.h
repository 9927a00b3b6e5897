#ifndef GAKPPC_MEMGUARD_H
#define GAKPPC_MEMGUARD_H

/*
 * Bounds-checked memory and string functions, under the names of C11 Annex K. On an accelerator host libmemguard.so
 * belongs to the platform; this header declares what is used of it, and memguard.cpp is a stand-in for machines
 * without it.
 *
 * `destMax` is the size of the destination in bytes, the terminating zero of a text included. Failures are returned,
 * never signalled. A formatter always leaves a terminated text behind when it has a destination of at least one byte;
 * source and destination must not overlap.
 */

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* Sets `count` bytes of `dest` to `c` and returns 0. Returns a non-zero error number for a null `dest`, for a `destMax`
 * of more than half the address space (both write nothing) and for a `count` above `destMax` (the whole destination is
 * then set, so that nothing old can be read from it). */
int memset_s(void* dest, size_t destMax, int c, size_t count);

/* Formats into `dest` and returns the length. Returns -1 and leaves an empty text for a null `dest` or `fmt`, a
 * `destMax` of 0, a text that does not fit, and a text that cannot be encoded. */
int sprintf_s(char* dest, size_t destMax, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

/* Formats at most `count` characters into `dest` and returns the length. Returns -1 as sprintf_s does, and for a text
 * of more than `count` characters: when `count` characters fit, `dest` holds the first `count` of them. */
int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* fmt, va_list args)
    __attribute__((format(printf, 4, 0)));

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
