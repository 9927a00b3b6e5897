#ifndef GAKPPC_CANDIDATE_H
#define GAKPPC_CANDIDATE_H

#include <cstdint>
#include <memory>
#include <string>

#include "qel_message.pb.h"

// What a way of carrying messages between a daemon and its workers offers to the benchmark. Each file in candidates/
// implements Serve and Connect, and becomes a program of its own together with role_main.cpp. A failure ends the
// program with a line on standard error.
namespace bench {

// Heartbeats of this device are answered, those of the other one only read.
constexpr uint32_t kEchoDevice = 0;
constexpr uint32_t kOneWayDevice = 1;

// The daemon. Threads of its own receive; they end with the process.
class Daemon {
public:
    virtual ~Daemon() = default;
    // What a daemon does from time to time.
    virtual void Tidy() {}
};

// One worker's connection. Receive follows a Send whose message is answered.
class Link {
public:
    virtual ~Link() = default;
    virtual void Send(const qel::PPCMessage& msg) = 0;
    virtual void Receive(qel::PPCMessage& msg) = 0;
    virtual void SendHeartbeat(uint32_t device);
};

std::unique_ptr<Daemon> Serve(const std::string& address);
std::unique_ptr<Link> Connect(const std::string& address);

// A worker's message as the library composes it.
qel::PPCMessage MakeMessage(qel::PPCMessage::MsgType type, uint32_t device);
// What the daemon does with a message: whether it answers, and what.
bool IsAnswered(const qel::PPCMessage& msg);
qel::PPCMessage AnswerTo(const qel::PPCMessage& msg);

// Ends the program with `text` when `holds` is false.
void Require(bool holds, const char* text);

}  // namespace bench

#endif
