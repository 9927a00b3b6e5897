#ifndef GAKPPC_PPC_H
#define GAKPPC_PPC_H

/**
 * @file
 * The transport driver: framed messages over Unix-domain stream sockets in one fixed directory. Plain C.
 *
 * Results. Every function returns one of the PPC_ codes below, 0 for success (drvPpcCreateDir() and ppcInit(): 0 or
 * another value). A failing call leaves its output arguments untouched unless its comment says otherwise. A null
 * pointer where a pointer is needed gives ::PPC_ERR_INVALID_VALUE. Every failure writes one line to the device log.
 *
 * Handles. PpcServerHead, PpcSession and PpcMsg are opaque. Whoever obtains one ends it, with the function named at
 * the creating one. Server endpoints and sessions may be ended while other threads are inside calls on them: those
 * calls return soon with an error, and the descriptor is closed when the last of them has left, so that its number is
 * never used under a call in flight. Ending one twice is an error that changes nothing. The driver recognises an ended
 * session until 4096 more sessions have ended, an ended server endpoint until 64 more have; a handle must not be used
 * after that.
 *
 * Threads. Any thread may call any function. One session is read by one thread at a time; any number of threads may
 * send on it, and their frames never mix. One message descriptor belongs to one thread at a time.
 *
 * Processes. Descriptors are closed on exec, and their numbers are above those of the standard descriptors, also where
 * these are closed. A forked child must not use its parent's handles; when it ends one all the same, only the child's
 * copy of the descriptor is closed and the parent's connection lives on.
 *
 * Frames. A frame is a 4-byte big-endian payload length and the payload. Lengths are in bytes.
 */

#include <stdint.h>

#include "gakppc_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Results of the driver's functions. */
enum {
    PPC_OK = 0,                  /**< success */
    PPC_ERR_INVALID_VALUE = 3,   /**< null argument, bad magic, unsupported count, index or flag, length mismatch */
    PPC_ERR_NO_RESOURCE = 6,     /**< the descriptor holds a buffer already; the frame is longer than the limit */
    PPC_ERR_SOCKET_CREATE = 18,  /**< socket failed */
    PPC_ERR_SOCKET_CONNECT = 19, /**< connect failed */
    PPC_ERR_SOCKET_BIND = 20,    /**< bind failed */
    PPC_ERR_SOCKET_LISTEN = 21,  /**< listen failed */
    PPC_ERR_SOCKET_ACCEPT = 22,  /**< accept failed on a live endpoint */
    PPC_ERR_SOCKET_PATH = 24,    /**< the socket path could not be formed */
    PPC_ERR_SOCKET_CLOSED = 25,  /**< the peer closed before a frame began; this end ended the session or endpoint */
    PPC_ERR_RECV = 26,           /**< recv failed, or the payload could not be read */
    PPC_ERR_SEND = 27,           /**< writev failed or wrote short */
    PPC_ERR_NO_MEMORY = 40       /**< malloc failed */
};

/** The longest payload that drvPpcRecv() accepts: 1 GiB. */
#define PPC_MAX_MSG_LEN 0x40000000U

/** The first word of every session record. */
#define PPC_SESSION_MAGIC 0x484443FFU

struct sockaddr_un;
typedef struct PpcServerHead PpcServerHead; /**< A server endpoint. Opaque. */
typedef struct PpcSession PpcSession;       /**< A connection, accepted or made. Opaque. */
typedef struct PpcMsg PpcMsg;               /**< A message descriptor: carries one buffer. Opaque. */

/* ---- Socket directory and paths -------------------------------------------------------------------------------- */

/**
 * Prepares the socket directory.
 *
 * Creates "/home/KrovaUser/qel_ppc/" with mode 0350, less the umask, unless something of that name exists. Its parent
 * must exist. Every process calls it once, before it creates a server endpoint or connects a session; calling it again
 * is harmless.
 *
 * @return PPC_OK (0), or -1 when the directory cannot be created.
 */
GAKPPC_API int ppcInit(void);

/**
 * Does what ppcInit() does.
 *
 * @return What ppcInit() returns.
 */
GAKPPC_API int drvPpcCreateDir(void);

/**
 * Forms the path of a server's socket.
 *
 * @param[in,out] addr      Its sun_path is filled in; the family is the caller's to set.
 * @param[in]     isServer  Other than 0: the server's socket, which clients connect to as well.
 * @param[in]     serverId  The server's id; stands in the path in decimal.
 * @param[out]    addrLen   The address length; 0 after ::PPC_ERR_SOCKET_PATH.
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3) for a null argument; PPC_ERR_SOCKET_PATH (24) when the directory has
 *         not been prepared or the path does not fit.
 */
GAKPPC_API int drvPpcSetSockPath(struct sockaddr_un* addr, int isServer, int serverId, uint32_t* addrLen);

/**
 * Does nothing; callers test its result all the same.
 *
 * @return PPC_OK (0).
 */
GAKPPC_API int drvPpcInit(void);

/**
 * Does nothing; callers test its result all the same.
 *
 * @return PPC_OK (0).
 */
GAKPPC_API int drvPpcUninit(void);

/* ---- Servers, clients and sessions ----------------------------------------------------------------------------- */

/**
 * Listens on the socket of a server.
 *
 * A socket file of that name is removed first: a server that listened on it keeps its sessions but can no longer be
 * reached.
 *
 * @param[in]  serverId  The server's id; every client of this system connects to 0x4B50.
 * @param[out] ppServer  The endpoint, which the caller ends with drvPpcServerDestroy().
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3), PPC_ERR_SOCKET_CREATE (18), PPC_ERR_SOCKET_BIND (20),
 *         PPC_ERR_SOCKET_LISTEN (21), PPC_ERR_SOCKET_PATH (24) or PPC_ERR_NO_MEMORY (40).
 */
GAKPPC_API int drvPpcServerCreate(int serverId, PpcServerHead** ppServer);

/**
 * Ends a server endpoint.
 *
 * Accepts in flight return ::PPC_ERR_SOCKET_CLOSED; they are not waited for. The socket file and the accepted sessions
 * stay.
 *
 * @param server  The endpoint. It must not be used any more.
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3) when it is null, unknown or has been ended already.
 */
GAKPPC_API int drvPpcServerDestroy(PpcServerHead* server);

/**
 * Blocks until a client connects.
 *
 * @param[in]  server     The endpoint.
 * @param[out] ppSession  The session, which the caller ends with drvPpcSessionClose().
 * @return PPC_OK (0); PPC_ERR_SOCKET_CLOSED (25) once the endpoint has been destroyed, during and after the destroy;
 *         PPC_ERR_INVALID_VALUE (3), PPC_ERR_SOCKET_ACCEPT (22) or PPC_ERR_NO_MEMORY (40) otherwise.
 */
GAKPPC_API int drvPpcSessionAccept(PpcServerHead* server, PpcSession** ppSession);

/**
 * Ends an accepted session.
 *
 * Calls in flight on it return with an error; they are not waited for.
 *
 * @param session  The session. It must not be used any more.
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3) when it is null, unknown or has been ended already.
 */
GAKPPC_API int drvPpcSessionClose(PpcSession* session);

/**
 * Makes a client, which has no state.
 *
 * @param ppClient   Must not be null; never written.
 * @param reserved1  Ignored.
 * @param reserved2  Ignored.
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3) for a null pointer.
 */
GAKPPC_API int drvPpcClientCreate(void** ppClient, int reserved1, int reserved2);

/**
 * Ends a client, which has no state.
 *
 * @param client  Must not be null; never dereferenced.
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3) for a null pointer.
 */
GAKPPC_API int drvPpcClientDestroy(void* client);

/**
 * Connects to a server.
 *
 * Blocks for the connect only, which waits while the server's queue is full.
 *
 * @param[in]  serverId   The server's id.
 * @param[out] ppSession  The session, which the caller ends with drvPpcSessionDestroy().
 * @return PPC_OK (0); PPC_ERR_SOCKET_CONNECT (19) when nobody listens or connecting is not permitted;
 *         PPC_ERR_INVALID_VALUE (3), PPC_ERR_SOCKET_CREATE (18), PPC_ERR_SOCKET_PATH (24) or PPC_ERR_NO_MEMORY (40)
 *         otherwise.
 */
GAKPPC_API int drvPpcSessionConnect(int serverId, PpcSession** ppSession);

/**
 * Ends a connected session.
 *
 * Calls in flight on it return with an error; they are not waited for.
 *
 * @param session  The session. It must not be used any more.
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3) when it is null, unknown or has been ended already.
 */
GAKPPC_API int drvPpcSessionDestroy(PpcSession* session);

/* ---- Message descriptors and buffers --------------------------------------------------------------------------- */

/**
 * Makes an empty message descriptor.
 *
 * @param[in]  session  Only checked for its magic word.
 * @param[out] ppMsg    The descriptor, which the caller ends with drvPpcFreeMsg().
 * @param[in]  count    Must be 1.
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3) or PPC_ERR_NO_MEMORY (40).
 */
GAKPPC_API int drvPpcAllocMsg(PpcSession* session, PpcMsg** ppMsg, int count);

/**
 * Frees a descriptor.
 *
 * Its buffer is freed only if drvPpcRecv() allocated it.
 *
 * @param msg  The descriptor.
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3) for a null or damaged descriptor, of which nothing is freed.
 */
GAKPPC_API int drvPpcFreeMsg(PpcMsg* msg);

/**
 * Empties a descriptor so that it can take another buffer.
 *
 * Its buffer is freed only if drvPpcRecv() allocated it.
 *
 * @param msg  The descriptor.
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3) for a null or damaged descriptor.
 */
GAKPPC_API int drvPpcReuseMsg(PpcMsg* msg);

/**
 * Attaches a buffer to an empty descriptor.
 *
 * @param msg  The descriptor.
 * @param buf  The bytes. They stay the caller's and must outlive their use by the descriptor.
 * @param len  How many, at least 1.
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3); PPC_ERR_NO_RESOURCE (6) when a buffer is attached already, which
 *         stays.
 */
GAKPPC_API int drvPpcAddMsgBuffer(PpcMsg* msg, void* buf, int len);

/**
 * Finds the buffer of a descriptor.
 *
 * @param[in]  msg    The descriptor.
 * @param[in]  index  Must be 0.
 * @param[out] ppBuf  The bytes, which stay owned as they are; null for an empty descriptor.
 * @param[out] pLen   How many; 0 for an empty descriptor.
 * @return PPC_OK (0) or PPC_ERR_INVALID_VALUE (3).
 */
GAKPPC_API int drvPpcGetMsgBuffer(PpcMsg* msg, int index, void** ppBuf, uint32_t* pLen);

/* ---- Framed socket I/O ----------------------------------------------------------------------------------------- */

/**
 * Writes one frame with one system call.
 *
 * Blocks until the kernel has taken it whole. A frame that was cut ends the connection: the socket is shut down, so
 * that the peer reads the end of the stream and not a damaged frame. A closed peer raises no signal.
 *
 * @param fd   A connected stream socket.
 * @param buf  The payload.
 * @param len  Its length; 0 is permitted.
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3) for a null buffer; PPC_ERR_SEND (27) for every other outcome.
 */
GAKPPC_API int drvPpcSocketSend(int fd, const void* buf, int len);

/**
 * Waits for a frame and reads its length without consuming it.
 *
 * @param[in]  fd   A connected stream socket.
 * @param[out] len  The announced payload length.
 * @return PPC_OK (0); PPC_ERR_SOCKET_CLOSED (25) at the end of the stream; PPC_ERR_RECV (26) when recv fails;
 *         PPC_ERR_INVALID_VALUE (3) when fewer than 4 bytes are waiting.
 */
GAKPPC_API int drvPpcSocketRecvPeek(int fd, uint32_t* len);

/**
 * Reads one frame of known length.
 *
 * Blocks until the length field and the payload have been read. After PPC_ERR_SOCKET_CLOSED (25) and PPC_ERR_RECV (26)
 * part of the payload may have been written to `buf`.
 *
 * @param[in]  fd        A connected stream socket.
 * @param[out] buf       Takes the payload: `expected` bytes.
 * @param[in]  expected  The payload length that the frame must announce. None announces a negative one.
 * @param[out] got       The number of payload bytes, which is `expected`.
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3) when the frame announces another length (its length field is consumed
 *         then); PPC_ERR_SOCKET_CLOSED (25) when the peer closed; PPC_ERR_RECV (26) when recv fails.
 */
GAKPPC_API int drvPpcSocketRecv(int fd, void* buf, int expected, uint32_t* got);

/**
 * Sends a descriptor's buffer as one frame.
 *
 * Blocks while the socket is full, until the kernel has taken the frame or the session is ended.
 *
 * @param session  The session.
 * @param msg      The descriptor. It and its buffer stay the caller's.
 * @param flag     Must be 0.
 * @return PPC_OK (0); PPC_ERR_INVALID_VALUE (3); PPC_ERR_SEND (27) when the frame was not sent whole.
 */
GAKPPC_API int drvPpcSend(PpcSession* session, PpcMsg* msg, uint32_t flag);

/**
 * Receives one frame into a descriptor.
 *
 * Blocks until a frame arrives or the session is ended. The payload is read into a buffer that then belongs to the
 * descriptor. A frame of length 0 gives success without a buffer; it is not consumed, and *count is not written. After
 * PPC_ERR_NO_MEMORY (40), or PPC_ERR_NO_RESOURCE (6) because the descriptor held a buffer already, the session's socket
 * is closed; the session must still be ended.
 *
 * A session that this end has ended with drvPpcSessionClose() or drvPpcSessionDestroy() reads as closed: at once if it
 * had ended before the call, and instead of PPC_ERR_RECV (26) if it ended during the call.
 *
 * @param[in]  session    The session.
 * @param[in]  msg        An empty descriptor.
 * @param[in]  reserved1  Ignored.
 * @param[in]  reserved2  Ignored.
 * @param[out] count      1, the number of buffers.
 * @return PPC_OK (0); PPC_ERR_SOCKET_CLOSED (25) when the peer closed before a frame, or this end has ended the
 *         session; PPC_ERR_RECV (26) when reading failed, also because the socket is closed; PPC_ERR_INVALID_VALUE (3)
 *         when only part of a length field was waiting; PPC_ERR_NO_RESOURCE (6) for a frame above ::PPC_MAX_MSG_LEN,
 *         which is not consumed; PPC_ERR_NO_MEMORY (40) when there is no memory for it.
 */
GAKPPC_API int drvPpcRecv(PpcSession* session, PpcMsg* msg, uint32_t reserved1, uint32_t reserved2, uint32_t* count);

#ifdef __cplusplus
}
#endif

#endif
