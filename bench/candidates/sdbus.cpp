// sd-bus, peer to peer: an answered message is a method call, all others are calls without a reply.

#include <systemd/sd-bus.h>

#include <utility>

#include "candidate.h"
#include "unix_socket.h"

namespace bench {
namespace {

constexpr char kPath[] = "/bench";
constexpr char kInterface[] = "bench.Exchange";
constexpr char kMember[] = "Talk";

void Append(sd_bus_message* carrier, const qel::PPCMessage& msg)
{
    void* space = nullptr;
    Require(sd_bus_message_append_array_space(carrier, 'y', msg.ByteSizeLong(), &space) >= 0, "append");
    msg.SerializeWithCachedSizesToArray(static_cast<uint8_t*>(space));
}

void Extract(sd_bus_message* carrier, qel::PPCMessage& msg)
{
    const void* bytes = nullptr;
    size_t size = 0;
    Require(sd_bus_message_read_array(carrier, 'y', &bytes, &size) >= 0, "sd_bus_message_read_array");
    Require(msg.ParseFromArray(bytes, static_cast<int>(size)), "decoding");
}

int Handle(sd_bus_message* carrier, void* userData, sd_bus_error*)
{
    if (sd_bus_message_is_method_call(carrier, kInterface, kMember) <= 0) {
        return 0;
    }
    qel::PPCMessage& msg = *static_cast<qel::PPCMessage*>(userData);
    Extract(carrier, msg);
    if (IsAnswered(msg)) {
        sd_bus_message* reply = nullptr;
        Require(sd_bus_message_new_method_return(carrier, &reply) >= 0, "sd_bus_message_new_method_return");
        Append(reply, AnswerTo(msg));
        Require(sd_bus_send(nullptr, reply, nullptr) >= 0, "sd_bus_send");
        sd_bus_message_unref(reply);
    }
    return 1;
}

sd_bus* OpenBus(int fd)
{
    sd_bus* bus = nullptr;
    Require(sd_bus_new(&bus) >= 0 && sd_bus_set_fd(bus, fd, fd) >= 0, "sd_bus_new");
    Require(sd_bus_set_anonymous(bus, 1) >= 0, "sd_bus_set_anonymous");
    return bus;
}

void ServeConnection(int fd)
{
    qel::PPCMessage msg;
    sd_bus* bus = OpenBus(fd);
    sd_id128_t id;
    Require(sd_id128_randomize(&id) >= 0 && sd_bus_set_server(bus, 1, id) >= 0, "sd_bus_set_server");
    Require(sd_bus_add_filter(bus, nullptr, Handle, &msg) >= 0 && sd_bus_start(bus) >= 0, "sd_bus_start");
    for (;;) {
        const int result = sd_bus_process(bus, nullptr);
        if (result < 0 || (result == 0 && sd_bus_wait(bus, UINT64_MAX) < 0)) {
            return;
        }
    }
}

class SdBusLink : public Link {
public:
    explicit SdBusLink(const std::string& address) : bus_(OpenBus(ConnectTo(address)))
    {
        Require(sd_bus_start(bus_) >= 0, "sd_bus_start");
    }
    ~SdBusLink() override
    {
        sd_bus_message_unref(reply_);
        sd_bus_flush_close_unref(bus_);
    }
    SdBusLink(const SdBusLink&) = delete;
    SdBusLink& operator=(const SdBusLink&) = delete;

    void Send(const qel::PPCMessage& msg) override
    {
        sd_bus_message* call = nullptr;
        Require(sd_bus_message_new_method_call(bus_, &call, nullptr, kPath, kInterface, kMember) >= 0,
                "sd_bus_message_new_method_call");
        Append(call, msg);
        if (IsAnswered(msg)) {
            sd_bus_message_unref(std::exchange(reply_, nullptr));
            Require(sd_bus_call(bus_, call, 0, nullptr, &reply_) >= 0, "sd_bus_call");
        } else {
            Tell(call);
        }
        sd_bus_message_unref(call);
    }

    void Receive(qel::PPCMessage& msg) override { Extract(reply_, msg); }

private:
    void Tell(sd_bus_message* call)
    {
        Require(sd_bus_message_set_expect_reply(call, 0) >= 0 && sd_bus_send(bus_, call, nullptr) >= 0, "sd_bus_send");
        uint64_t queued = 0;
        if (sd_bus_get_n_queued_write(bus_, &queued) >= 0 && queued != 0) {
            Require(sd_bus_flush(bus_) >= 0, "sd_bus_flush");
        }
    }

    sd_bus* const bus_;
    sd_bus_message* reply_ = nullptr;
};

}  // namespace

std::unique_ptr<Daemon> Serve(const std::string& address)
{
    ServeEachConnection(address, ServeConnection);
    return std::make_unique<Daemon>();
}

std::unique_ptr<Link> Connect(const std::string& address)
{
    return std::make_unique<SdBusLink>(address);
}

}  // namespace bench
