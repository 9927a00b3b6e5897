#ifndef GAKPPC_TRACEPOINTS_H
#define GAKPPC_TRACEPOINTS_H

#include <cstdint>

// The static tracepoints, a contract with those who attach to them: docs/tracepoints.md says when each is reached and
// what its arguments are.
//
//     GAKPPC_TRACE(session_opened, fd, PeerPid(fd));
//
// The arguments are evaluated only while somebody looks: a tracer raises the semaphore of the tracepoint before it
// places its breakpoint, and lowers it afterwards. Otherwise the line is one test of a number that stays 0, and nothing
// at all where the library is built without tracepoints.

#ifdef GAKPPC_HAS_TRACEPOINTS
#define GAKPPC_TRACE_IS_ON(name) __builtin_expect(gakppc_##name##_semaphore, 0)
#else
#define GAKPPC_TRACE_IS_ON(name) false
#endif

#define GAKPPC_TRACE(name, ...) \
    do { \
        if (GAKPPC_TRACE_IS_ON(name)) { \
            tracepoint::name(__VA_ARGS__); \
        } \
    } while (false)

// The tracer, or the kernel for it, writes them, unseen by the compiler; calls lie between any two tests, so each reads
// anew. Their names are those by which <sys/sdt.h> finds them.
#define GAKPPC_DECLARE_SEMAPHORE(name) \
    extern "C" __attribute__((visibility("hidden"))) unsigned short gakppc_##name##_semaphore
GAKPPC_DECLARE_SEMAPHORE(server_created);
GAKPPC_DECLARE_SEMAPHORE(server_destroyed);
GAKPPC_DECLARE_SEMAPHORE(session_opened);
GAKPPC_DECLARE_SEMAPHORE(session_ended);
GAKPPC_DECLARE_SEMAPHORE(message_sending);
GAKPPC_DECLARE_SEMAPHORE(message_sent);
GAKPPC_DECLARE_SEMAPHORE(message_received);
GAKPPC_DECLARE_SEMAPHORE(handler_waiting);
GAKPPC_DECLARE_SEMAPHORE(handler_entered);
GAKPPC_DECLARE_SEMAPHORE(handler_left);
GAKPPC_DECLARE_SEMAPHORE(custom_process_asked);
GAKPPC_DECLARE_SEMAPHORE(custom_process_found);

namespace tracepoint {

// What a tracer reads from memory, because bpftrace takes no more than six arguments. Its layout is part of the
// contract; a new field is added at the end.
struct MessageDetails {
    const void* payload;
    uint32_t length;
    uint32_t srcId;
    uint32_t destId;
    uint32_t processType;
};

// A message on its way, or one that has arrived.
struct Message {
    int32_t type;
    uint32_t device;
    uint32_t pid;  // that the message names
    int32_t fd;
    MessageDetails details;
};

void server_created(uint32_t serverId);
void server_destroyed(uint32_t serverId);
void session_opened(int32_t fd, int32_t peerPid);
void session_ended(int32_t fd, int32_t peerPid);
void message_sending(const Message& message);
void message_sent(const Message& message, uint32_t status);
void message_received(const Message& message, uint32_t status);
void handler_waiting(int32_t type, uint32_t device, uint32_t pid);
void handler_entered(int32_t type, uint32_t device, uint32_t pid);
void handler_left(int32_t type, uint32_t device, uint32_t pid);
void custom_process_asked(uint32_t device, uint32_t pid);
void custom_process_found(uint32_t device, uint32_t pid);

}  // namespace tracepoint

#endif
