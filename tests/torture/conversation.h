#ifndef GAKPPC_CONVERSATION_H
#define GAKPPC_CONVERSATION_H

#include <string>

namespace gaktest {

// One whole conversation of a daemon and its workers, both sides in this process: the daemon is created; a compute
// worker starts, sends heartbeats, asks for the custom process, which starts too, reports an abnormal end; both are
// shut down; both sides are destroyed. Carries every message of the protocol.
//
// Returns what went wrong, empty when nothing did. While calls fail (see fault_injector.h) steps may have no effect:
// the conversation goes on with the next one. Wrong in any case are a damaged or unknown message, a result that is none
// of the documented ones, and a thread or descriptor that is left at the end.
std::string RunConversation();

// Ends so many sessions and servers that the driver forgets the conversation's, whose records it keeps for a while on
// purpose. False when that fails.
bool FloodRecords();

}  // namespace gaktest

#endif
