// ZeroMQ: the daemon a ROUTER, each worker a DEALER, over its IPC transport.

#include <zmq.h>

#include <thread>

#include "candidate.h"

namespace bench {
namespace {

void* Context()
{
    static void* const context = zmq_ctx_new();
    return context;
}

void* OpenSocket(int type)
{
    void* socket = zmq_socket(Context(), type);
    Require(socket != nullptr, "zmq_socket");
    const int linger = 0;
    Require(zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof(linger)) == 0, "ZMQ_LINGER");
    return socket;
}

void SendMessage(void* socket, const qel::PPCMessage& msg)
{
    zmq_msg_t part;
    Require(zmq_msg_init_size(&part, msg.ByteSizeLong()) == 0, "zmq_msg_init_size");
    msg.SerializeWithCachedSizesToArray(static_cast<uint8_t*>(zmq_msg_data(&part)));
    Require(zmq_msg_send(&part, socket, 0) >= 0, "zmq_msg_send");
}

void ReceiveMessage(void* socket, qel::PPCMessage& msg)
{
    zmq_msg_t part;
    zmq_msg_init(&part);
    Require(zmq_msg_recv(&part, socket, 0) >= 0, "zmq_msg_recv");
    Require(msg.ParseFromArray(zmq_msg_data(&part), static_cast<int>(zmq_msg_size(&part))), "decoding");
    zmq_msg_close(&part);
}

void ServeForever(void* socket)
{
    qel::PPCMessage msg;
    for (;;) {
        zmq_msg_t peer;
        zmq_msg_init(&peer);
        Require(zmq_msg_recv(&peer, socket, 0) >= 0, "zmq_msg_recv");
        ReceiveMessage(socket, msg);
        if (IsAnswered(msg)) {
            Require(zmq_msg_send(&peer, socket, ZMQ_SNDMORE) >= 0, "zmq_msg_send");
            SendMessage(socket, AnswerTo(msg));
        }
        zmq_msg_close(&peer);
    }
}

class ZeroMqLink : public Link {
public:
    explicit ZeroMqLink(const std::string& address)
    {
        Require(zmq_connect(socket_, ("ipc://" + address).c_str()) == 0, "zmq_connect");
    }
    ~ZeroMqLink() override { zmq_close(socket_); }
    ZeroMqLink(const ZeroMqLink&) = delete;
    ZeroMqLink& operator=(const ZeroMqLink&) = delete;

    void Send(const qel::PPCMessage& msg) override { SendMessage(socket_, msg); }
    void Receive(qel::PPCMessage& msg) override { ReceiveMessage(socket_, msg); }

private:
    void* const socket_ = OpenSocket(ZMQ_DEALER);
};

}  // namespace

std::unique_ptr<Daemon> Serve(const std::string& address)
{
    void* socket = OpenSocket(ZMQ_ROUTER);
    Require(zmq_bind(socket, ("ipc://" + address).c_str()) == 0, "zmq_bind");
    std::thread(ServeForever, socket).detach();
    return std::make_unique<Daemon>();
}

std::unique_ptr<Link> Connect(const std::string& address)
{
    return std::make_unique<ZeroMqLink>(address);
}

}  // namespace bench
