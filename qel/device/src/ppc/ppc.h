#ifndef GAKPPC_PPC_H
#define GAKPPC_PPC_H

/*
 * The PPC transport driver: framed messages over Unix-domain stream sockets in one fixed directory. Plain C.
 *
 * Results. Every function returns one of the PPC_ codes below, 0 for success (drvPpcCreateDir and ppcInit: 0 or
 * another value). A failing call leaves its output arguments untouched unless its comment says otherwise. A null
 * pointer where a pointer is needed gives PPC_ERR_INVALID_VALUE. Every failure writes one line to the device log.
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
 * Processes. Descriptors are closed on exec. A forked child must not use its parent's handles; when it ends one all
 * the same, only the child's copy of the descriptor is closed and the parent's connection lives on.
 *
 * Lengths are in bytes.
 */

#include <stdint.h>

#include "gakppc_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    PPC_OK = 0,
    PPC_ERR_INVALID_VALUE = 3,   /* null argument, bad magic, unsupported count, index or flag, length mismatch */
    PPC_ERR_NO_RESOURCE = 6,     /* the descriptor holds a buffer already; the frame is longer than the limit */
    PPC_ERR_SOCKET_CREATE = 18,  /* socket failed */
    PPC_ERR_SOCKET_CONNECT = 19, /* connect failed */
    PPC_ERR_SOCKET_BIND = 20,    /* bind failed */
    PPC_ERR_SOCKET_LISTEN = 21,  /* listen failed */
    PPC_ERR_SOCKET_ACCEPT = 22,  /* accept failed on a live endpoint */
    PPC_ERR_SOCKET_PATH = 24,    /* the socket path could not be formed */
    PPC_ERR_SOCKET_CLOSED = 25,  /* the peer closed before a frame began; the server endpoint was destroyed */
    PPC_ERR_RECV = 26,           /* recv failed, or the payload could not be read */
    PPC_ERR_SEND = 27,           /* writev failed or wrote short */
    PPC_ERR_NO_MEMORY = 40       /* malloc failed */
};

/* The longest payload that drvPpcRecv accepts: 1 GiB. */
#define PPC_MAX_MSG_LEN 0x40000000U

/* The first word of every session record. */
#define PPC_SESSION_MAGIC 0x484443FFU

struct sockaddr_un;
typedef struct PpcServerHead PpcServerHead;
typedef struct PpcSession PpcSession;
typedef struct PpcMsg PpcMsg;

/* ---- Socket directory and paths -------------------------------------------------------------------------------- */

/*
 * Prepares the socket directory "/home/KrovaUser/qel_ppc/": creates it with mode 0350, less the umask, unless
 * something of that name exists. Its parent must exist. Every process calls it once, before it creates a server
 * endpoint or connects a session; calling it again is harmless. Returns 0, or -1 when the directory cannot be created.
 */
GAKPPC_API int ppcInit(void);
GAKPPC_API int drvPpcCreateDir(void);

/*
 * Writes the socket path of `serverId` into addr->sun_path and the address length into *addrLen; the family is the
 * caller's to set. `isServer` other than 0 selects the server's socket, which clients connect to as well. Gives
 * PPC_ERR_SOCKET_PATH, with *addrLen = 0, when the path does not fit or the directory has not been prepared.
 */
GAKPPC_API int drvPpcSetSockPath(struct sockaddr_un* addr, int isServer, int serverId, uint32_t* addrLen);

/* Both do nothing and return 0. */
GAKPPC_API int drvPpcInit(void);
GAKPPC_API int drvPpcUninit(void);

/* ---- Servers, clients and sessions ----------------------------------------------------------------------------- */

/*
 * Listens on the socket of `serverId` and stores the endpoint, which the caller ends with drvPpcServerDestroy. A
 * socket file of that name is removed first: a server that listened on it keeps its sessions but can no longer be
 * reached. Gives 3, 18, 20, 21, 24 or 40.
 */
GAKPPC_API int drvPpcServerCreate(int serverId, PpcServerHead** ppServer);

/*
 * Ends the endpoint; accepts in flight return PPC_ERR_SOCKET_CLOSED. Does not wait for them. The socket file and the
 * accepted sessions stay.
 */
GAKPPC_API int drvPpcServerDestroy(PpcServerHead* server);

/*
 * Blocks until a client connects and stores the session, which the caller ends with drvPpcSessionClose. Gives
 * PPC_ERR_SOCKET_CLOSED once the endpoint has been destroyed, during and after the destroy; 3, 22 or 40 otherwise.
 */
GAKPPC_API int drvPpcSessionAccept(PpcServerHead* server, PpcSession** ppSession);
GAKPPC_API int drvPpcSessionClose(PpcSession* session);

/* A client has no state: *ppClient is never written, and the further arguments are ignored. */
GAKPPC_API int drvPpcClientCreate(void** ppClient, int reserved1, int reserved2);
GAKPPC_API int drvPpcClientDestroy(void* client);

/*
 * Connects to the server of that id and stores the session, which the caller ends with drvPpcSessionDestroy. Blocks
 * for the connect only. Gives PPC_ERR_SOCKET_CONNECT when nobody listens; 3, 18, 24 or 40 otherwise.
 */
GAKPPC_API int drvPpcSessionConnect(int serverId, PpcSession** ppSession);
GAKPPC_API int drvPpcSessionDestroy(PpcSession* session);

/* ---- Message descriptors and buffers --------------------------------------------------------------------------- */

/*
 * Stores an empty descriptor, which the caller ends with drvPpcFreeMsg. `count` must be 1. The session is only checked
 * for its magic word.
 */
GAKPPC_API int drvPpcAllocMsg(PpcSession* session, PpcMsg** ppMsg, int count);

/* Frees the descriptor, and its buffer only if drvPpcRecv allocated it. */
GAKPPC_API int drvPpcFreeMsg(PpcMsg* msg);

/* Empties the descriptor (freeing its buffer as drvPpcFreeMsg does) so that it can take another buffer. */
GAKPPC_API int drvPpcReuseMsg(PpcMsg* msg);

/*
 * Attaches `len` > 0 bytes at `buf`, which stay the caller's and must outlive their use by the descriptor. Gives
 * PPC_ERR_NO_RESOURCE when a buffer is attached already.
 */
GAKPPC_API int drvPpcAddMsgBuffer(PpcMsg* msg, void* buf, int len);

/*
 * Stores the address and length of buffer `index`, which must be 0; null and 0 for an empty descriptor. The buffer
 * stays owned as it is.
 */
GAKPPC_API int drvPpcGetMsgBuffer(PpcMsg* msg, int index, void** ppBuf, uint32_t* pLen);

/* ---- Framed socket I/O ----------------------------------------------------------------------------------------- */

/* A frame is a 4-byte big-endian payload length and the payload. */

/*
 * Writes one frame with one writev, blocking until the kernel has taken it whole; any other outcome gives
 * PPC_ERR_SEND. A frame that was cut ends the connection: the socket is shut down, so that the peer reads the end
 * of the stream and not a damaged frame. A closed peer raises no signal.
 */
GAKPPC_API int drvPpcSocketSend(int fd, const void* buf, int len);

/*
 * Waits for data and stores the announced payload length without consuming it. Gives 25 at the end of the stream, 26
 * when recv fails, 3 when fewer than 4 bytes are waiting.
 */
GAKPPC_API int drvPpcSocketRecvPeek(int fd, uint32_t* len);

/*
 * Blocks until the length field and `expected` payload bytes have been read into `buf`, and stores the number of
 * payload bytes. Gives 3 when the length field differs from `expected` (it is consumed then), 25 when the peer closed,
 * 26 when recv fails; part of the payload may have been written to `buf` then.
 */
GAKPPC_API int drvPpcSocketRecv(int fd, void* buf, int expected, uint32_t* got);

/*
 * Sends the descriptor's buffer as one frame; `flag` must be 0. Blocks while the socket is full, until the kernel has
 * taken the frame or the session is ended. The descriptor and the buffer stay the caller's. Gives 3 or 27.
 */
GAKPPC_API int drvPpcSend(PpcSession* session, PpcMsg* msg, uint32_t flag);

/*
 * Blocks until a frame arrives or the session is ended, reads it into a buffer that then belongs to the descriptor and
 * stores 1 in *count. A frame of length 0 gives success without a buffer; it is not consumed, and *count is not
 * written. Gives 25 when the peer closed before a frame, 26 when reading failed, 3 when only part of a length field
 * was waiting, 6 for a frame above PPC_MAX_MSG_LEN (not consumed), 40 when there is no memory for it. The two reserved
 * arguments are ignored. After 40, or when the descriptor held a buffer already (6), the session's socket is closed;
 * the session must still be ended.
 */
GAKPPC_API int drvPpcRecv(PpcSession* session, PpcMsg* msg, uint32_t reserved1, uint32_t reserved2, uint32_t* count);

#ifdef __cplusplus
}
#endif

#endif
