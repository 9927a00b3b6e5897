#ifndef GAKPPC_GAK_H
#define GAKPPC_GAK_H

/*
 * What a worker process calls. Plain C.
 *
 * A worker calls ppcInit (ppc.h) once, then GakWaitForShutdown on a thread of its own; GakHeartbeatSend from time to
 * time; CreateOrFindCustPid when it needs the custom compute process; GakDestory when it ends abnormally. When
 * GakWaitForShutdown has returned 0 the worker exits.
 *
 * Results are 0 for success and a status number otherwise; each failure is logged. Device numbers are 0 to 3. Any
 * thread may call any function; the connection to the daemon is opened on first use, one for each device and process
 * type, and closed at process exit. Threads inside these functions must not be cancelled (pthread_cancel). No signal
 * is raised when the daemon is gone. A forked child must not call them.
 */

#include <stdint.h>

#include "gakppc_export.h"
#include "ppc.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Process type: 0 ZOLT, 1 COMPUTE, 2 CUSTOM_COMPUTE. */
typedef uint32_t GakWaitType;

/*
 * Tells the daemon that this worker has started (START_RSP), then blocks until the daemon orders the device's shutdown,
 * which is acknowledged (SHUTDOWN_RSP). Returns 0 then, and 0x1093031 in every other case: a device above 3, no daemon,
 * a connection that ended.
 */
GAKPPC_API uint32_t GakWaitForShutdown(uint32_t deviceId, GakWaitType waitType);

/* Sends one HEARTBEAT. Blocks only while the socket is full. Returns 0 or 0x1093031. */
GAKPPC_API uint32_t GakHeartbeatSend(uint32_t deviceId, GakWaitType waitType);

/* Reports an abnormal end (ABNORMAL). Nothing is torn down. Blocks only while the socket is full. 0 or 0x1093031. */
GAKPPC_API uint32_t GakDestory(uint32_t deviceId, GakWaitType waitType);

/*
 * Asks the daemon for the custom compute process (NOTIFY_VEXOINFO) and waits, without a time limit, until it reports
 * that it runs; once it has, later calls return right after sending. Another thread of this process must be inside
 * GakWaitForShutdown for COMPUTE, or nothing ends the wait. Returns 0 or 0x1093031: no other message of this process
 * was sent before, or the request could not be sent (it waits all the same, because the report may still come).
 *
 * `libNameList` holds `libNameCount` zero-terminated names, read before the call returns; it may be null when the count
 * is 0. A null entry raises std::logic_error ("basic_string::_M_construct null not valid"), the only exception that
 * leaves these functions: C programs must not pass one.
 */
GAKPPC_API uint32_t CreateOrFindCustPid(uint32_t libNameCount, const char* const* libNameList, uint32_t hostPid);

#ifdef __cplusplus
}
#endif

#endif
