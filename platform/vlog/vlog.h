#ifndef GAKPPC_VLOG_H
#define GAKPPC_VLOG_H

/*
 * The device logging library. On an accelerator host libvlog.so belongs to the platform; this header declares what is
 * used of it, and vlog.cpp is a stand-in for machines without it.
 *
 * Levels: 0 debug, 1 info, 2 warning, 3 error; outside that scale 5 event, 6 operation log, 7 trace. A module id names
 * the component that logs and is printed with the line.
 *
 * The stand-in writes each line to standard error: time (UTC), level name, module id, text. Newlines at the end of the
 * text are dropped and one is added, a text of more than about 10,000 characters is cut. One line is one write, so
 * lines of several threads and processes do not mix. The functions that write look at no level: callers ask
 * CheckLogLevel first where a line may be filtered. They never fail visibly, keep errno, allocate nothing, and a closed
 * reader of standard error does not kill the process. Any thread may call anything at any time, also while the
 * process exits. A null format writes "(null)".
 */

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

typedef struct KeyValue {
    const char* kname;
    const char* value;
} KeyValue;

/* Opens the library. Returns 0; calling it again changes nothing. */
int vlog_init(void);

/* Returns the current level (0 to 3), whatever the module. `*enableEvent` becomes 1 (events are on); it may be null. */
int vlog_getlevel(int moduleId, int* enableEvent);

/* Returns 1 when a line of `logLevel` should be written, that is when it is not below the current level, otherwise 0.
 */
int CheckLogLevel(int moduleId, int logLevel);

/* Write one line at the level of their name. */
void VlogDebugInner(int moduleId, const char* fmt, ...) __attribute__((cold, format(printf, 2, 3)));
void VlogInfoInner(int moduleId, const char* fmt, ...) __attribute__((cold, format(printf, 2, 3)));
void VlogWarnInner(int moduleId, const char* fmt, ...) __attribute__((cold, format(printf, 2, 3)));
void VlogErrorInner(int moduleId, const char* fmt, ...) __attribute__((cold, format(printf, 2, 3)));
void VlogEventInner(int moduleId, const char* fmt, ...) __attribute__((cold, format(printf, 2, 3)));

/* Writes one line at `level`. */
void VlogInner(int moduleId, int level, const char* fmt, ...) __attribute__((cold, format(printf, 3, 4)));

/* Writes one line at `level` with the pairs before its text, as "{key=value}". The pairs are only read during the
 * call; null pairs or a count below 1 mean none. */
void VlogWithKVInner(int moduleId, int level, KeyValue* pairs, int pairCount, const char* fmt, ...)
    __attribute__((cold, format(printf, 5, 6)));

/* The stand-in's own, not in the host's library: sets the current level (at first 2, warning). Returns 0, or -1 for
 * a value outside 0 to 3, which changes nothing. */
int vlog_setlevel(int level);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
