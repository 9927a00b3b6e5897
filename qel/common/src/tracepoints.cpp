#include "tracepoints.h"

#ifdef GAKPPC_HAS_TRACEPOINTS

// NOLINTNEXTLINE(bugprone-reserved-identifier): the header asks for it
#define _SDT_HAS_SEMAPHORES 1
#include <sys/sdt.h>

#ifdef __clang__
#pragma clang diagnostic ignored "-Wgnu-zero-variadic-macro-arguments"  // in the header's macros
#endif

// One place for each tracepoint, out of line: a tracer finds one address, and arguments of the same widths in every
// build.

#define GAKPPC_DEFINE_SEMAPHORE(name) __attribute__((section(".probes"))) unsigned short gakppc_##name##_semaphore = 0
GAKPPC_DEFINE_SEMAPHORE(server_created);
GAKPPC_DEFINE_SEMAPHORE(server_destroyed);
GAKPPC_DEFINE_SEMAPHORE(session_opened);
GAKPPC_DEFINE_SEMAPHORE(session_ended);
GAKPPC_DEFINE_SEMAPHORE(message_sending);
GAKPPC_DEFINE_SEMAPHORE(message_sent);
GAKPPC_DEFINE_SEMAPHORE(message_received);
GAKPPC_DEFINE_SEMAPHORE(handler_waiting);
GAKPPC_DEFINE_SEMAPHORE(handler_entered);
GAKPPC_DEFINE_SEMAPHORE(handler_left);
GAKPPC_DEFINE_SEMAPHORE(custom_process_asked);
GAKPPC_DEFINE_SEMAPHORE(custom_process_found);

namespace tracepoint {

void server_created(uint32_t serverId)
{
    STAP_PROBE1(gakppc, server_created, serverId);
}

void server_destroyed(uint32_t serverId)
{
    STAP_PROBE1(gakppc, server_destroyed, serverId);
}

void session_opened(int32_t fd, int32_t peerPid)
{
    STAP_PROBE2(gakppc, session_opened, fd, peerPid);
}

void session_ended(int32_t fd, int32_t peerPid)
{
    STAP_PROBE2(gakppc, session_ended, fd, peerPid);
}

void message_sending(const Message& message)
{
    STAP_PROBE5(gakppc, message_sending, message.type, message.device, message.pid, message.fd, &message.details);
}

void message_sent(const Message& message, uint32_t status)
{
    STAP_PROBE6(gakppc, message_sent, message.type, message.device, message.pid, message.fd, &message.details, status);
}

void message_received(const Message& message, uint32_t status)
{
    STAP_PROBE6(gakppc, message_received, message.type, message.device, message.pid, message.fd, &message.details,
                status);
}

void handler_waiting(int32_t type, uint32_t device, uint32_t pid)
{
    STAP_PROBE3(gakppc, handler_waiting, type, device, pid);
}

void handler_entered(int32_t type, uint32_t device, uint32_t pid)
{
    STAP_PROBE3(gakppc, handler_entered, type, device, pid);
}

void handler_left(int32_t type, uint32_t device, uint32_t pid)
{
    STAP_PROBE3(gakppc, handler_left, type, device, pid);
}

void custom_process_asked(uint32_t device, uint32_t pid)
{
    STAP_PROBE2(gakppc, custom_process_asked, device, pid);
}

void custom_process_found(uint32_t device, uint32_t pid)
{
    STAP_PROBE2(gakppc, custom_process_found, device, pid);
}

}  // namespace tracepoint

#endif
