// nng, a pair of sockets over its IPC transport.

#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>

#include <thread>

#include "candidate.h"

namespace bench {
namespace {

nng_socket OpenPair()
{
    nng_socket socket;
    Require(nng_pair0_open(&socket) == 0, "nng_pair0_open");
    Require(nng_socket_set_size(socket, NNG_OPT_RECVMAXSZ, 0) == 0, "NNG_OPT_RECVMAXSZ");
    return socket;
}

void SendMessage(nng_socket socket, const qel::PPCMessage& msg)
{
    nng_msg* carrier = nullptr;
    Require(nng_msg_alloc(&carrier, msg.ByteSizeLong()) == 0, "nng_msg_alloc");
    msg.SerializeWithCachedSizesToArray(static_cast<uint8_t*>(nng_msg_body(carrier)));
    Require(nng_sendmsg(socket, carrier, 0) == 0, "nng_sendmsg");
}

void ReceiveMessage(nng_socket socket, qel::PPCMessage& msg)
{
    nng_msg* carrier = nullptr;
    Require(nng_recvmsg(socket, &carrier, 0) == 0, "nng_recvmsg");
    Require(msg.ParseFromArray(nng_msg_body(carrier), static_cast<int>(nng_msg_len(carrier))), "decoding");
    nng_msg_free(carrier);
}

void ServeForever(nng_socket socket)
{
    qel::PPCMessage msg;
    for (;;) {
        ReceiveMessage(socket, msg);
        if (IsAnswered(msg)) {
            SendMessage(socket, AnswerTo(msg));
        }
    }
}

class NngLink : public Link {
public:
    explicit NngLink(const std::string& address)
    {
        Require(nng_dial(socket_, ("ipc://" + address).c_str(), nullptr, 0) == 0, "nng_dial");
    }
    ~NngLink() override { nng_close(socket_); }

    void Send(const qel::PPCMessage& msg) override { SendMessage(socket_, msg); }
    void Receive(qel::PPCMessage& msg) override { ReceiveMessage(socket_, msg); }

private:
    const nng_socket socket_ = OpenPair();
};

}  // namespace

std::unique_ptr<Daemon> Serve(const std::string& address)
{
    const nng_socket socket = OpenPair();
    Require(nng_listen(socket, ("ipc://" + address).c_str(), nullptr, 0) == 0, "nng_listen");
    std::thread(ServeForever, socket).detach();
    return std::make_unique<Daemon>();
}

std::unique_ptr<Link> Connect(const std::string& address)
{
    return std::make_unique<NngLink>(address);
}

}  // namespace bench
