#ifndef GAKPPC_OSAL_H
#define GAKPPC_OSAL_H

/*
 * The OS abstraction library. On an accelerator host libosal.so belongs to the platform; this header declares what is
 * used of it, and osal.cpp is a stand-in for machines without it.
 */

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* Returns the kernel's id of the calling thread (in a process's first thread this is the process id). Asks the kernel
 * once in a thread, and again in a child of fork(). Never fails. */
int osalGetTid(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
