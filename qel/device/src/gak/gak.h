#ifndef GAKPPC_GAK_H
#define GAKPPC_GAK_H

/**
 * @file
 * What a worker process calls. Plain C.
 *
 * A worker calls ppcInit() once, then GakWaitForShutdown() on a thread of its own; GakHeartbeatSend() from time to
 * time; CreateOrFindCustPid() when it needs the custom compute process; GakDestory() when it ends abnormally. When
 * GakWaitForShutdown() has returned 0 the worker exits.
 *
 * Results are 0 for success and a status number otherwise; each failure is logged. The status numbers are named in
 * status_table.h (C++). Device numbers are 0 to 3. Any thread may call any function, but for each device and process
 * type one thread at a time waits in GakWaitForShutdown(): two would take each other's messages apart. The connection
 * to the daemon is opened on first use, one for each device and process type, and closed at process exit. A connection
 * that has ended is not opened again: the worker is expected to exit. Threads inside these functions must not be
 * cancelled (pthread_cancel). No signal is raised when the daemon is gone. A forked child must not call them.
 */

#include <stdint.h>

#include "gakppc_export.h"
#include "ppc.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Process type: 0 ZOLT, 1 COMPUTE, 2 CUSTOM_COMPUTE. Callers pass no other value. */
typedef uint32_t GakWaitType;

/**
 * Reports the start and waits for the order to shut down.
 *
 * Tells the daemon that this worker has started (START_RSP), then blocks until the daemon orders the device's shutdown,
 * which is acknowledged (SHUTDOWN_RSP). Nothing else ends the wait but a failure to receive. One thread at a time may
 * wait for a device and process type.
 *
 * @param deviceId  The worker's device, 0 to 3.
 * @param waitType  The worker's process type.
 * @return 0 when the order has been acknowledged; kStatusPpcCreateFail (0x1093031) in every other case: a device above
 *         3, no daemon, a connection that ended.
 */
GAKPPC_API uint32_t GakWaitForShutdown(uint32_t deviceId, GakWaitType waitType);

/**
 * Sends one heartbeat (HEARTBEAT).
 *
 * Blocks only while the socket is full, and for connecting on first use. Nothing comes back: 0 says that the kernel has
 * taken the message, not that the daemon has read it.
 *
 * @param deviceId  The worker's device, 0 to 3.
 * @param waitType  The worker's process type.
 * @return 0, or kStatusPpcCreateFail (0x1093031) when it could not be sent.
 */
GAKPPC_API uint32_t GakHeartbeatSend(uint32_t deviceId, GakWaitType waitType);

/**
 * Reports an abnormal end (ABNORMAL).
 *
 * Nothing is torn down: leaving is up to the worker. Blocks only while the socket is full, and for connecting on first
 * use.
 *
 * @param deviceId  The worker's device, 0 to 3.
 * @param waitType  The worker's process type.
 * @return 0, or kStatusPpcCreateFail (0x1093031) when it could not be sent.
 */
GAKPPC_API uint32_t GakDestory(uint32_t deviceId, GakWaitType waitType);

/**
 * Asks for the custom compute process and waits until it runs.
 *
 * Sends NOTIFY_VEXOINFO over the compute process's connection and waits, without a time limit, until the daemon reports
 * that the custom process has started; once it has, later calls return right after sending. Another thread of this
 * process must be inside GakWaitForShutdown() for COMPUTE, or nothing ends the wait. A request that could not be sent
 * is waited for all the same, because the report may still come.
 *
 * A null name raises std::logic_error ("basic_string::_M_construct null not valid"), the only exception that leaves the
 * functions of this header: C programs must not pass one.
 *
 * @param libNameCount  How many names there are.
 * @param libNameList   Zero-terminated names of the libraries that the custom process is to load. They stay the
 *                      caller's and are read before the call returns. May be null only when the count is 0.
 * @param hostPid       The host process that the custom process is to work for; passed on to the daemon as it is.
 * @return 0, or kStatusPpcCreateFail (0x1093031) when no other message of this process was sent before (then at once),
 *         when the list is null although the count is not 0 (at once too), or when the request could not be made or
 *         sent.
 */
GAKPPC_API uint32_t CreateOrFindCustPid(uint32_t libNameCount, const char* const* libNameList, uint32_t hostPid);

#ifdef __cplusplus
}
#endif

#endif
