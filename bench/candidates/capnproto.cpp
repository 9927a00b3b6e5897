// Cap'n Proto RPC: an answered message is a call, all others go through a streaming call.

#include <capnp/ez-rpc.h>
#include <kj/async.h>

#include <future>
#include <thread>

#include "candidate.h"
#include "exchange.capnp.h"

namespace bench {
namespace {

void Decode(capnp::Data::Reader bytes, qel::PPCMessage& msg)
{
    Require(msg.ParseFromArray(bytes.begin(), static_cast<int>(bytes.size())), "decoding");
}

class ExchangeImpl final : public rpc::Exchange::Server {
public:
    kj::Promise<void> ask(AskContext context) override
    {
        Decode(context.getParams().getMessage(), msg_);
        const qel::PPCMessage answer = AnswerTo(msg_);
        answer.SerializeWithCachedSizesToArray(
            context.getResults().initAnswer(static_cast<unsigned>(answer.ByteSizeLong())).begin());
        return kj::READY_NOW;
    }

    kj::Promise<void> tell(TellContext context) override
    {
        Decode(context.getParams().getMessage(), msg_);
        return kj::READY_NOW;
    }

private:
    qel::PPCMessage msg_;
};

void ServeForever(const std::string& address, std::promise<void>& listening)
{
    capnp::EzRpcServer server(kj::heap<ExchangeImpl>(), "unix:" + address);
    server.getPort().wait(server.getWaitScope());
    listening.set_value();
    kj::NEVER_DONE.wait(server.getWaitScope());
}

class CapnpLink : public Link {
public:
    explicit CapnpLink(const std::string& address)
        : client_("unix:" + address), exchange_(client_.getMain<rpc::Exchange>())
    {
    }

    // Members' destructors may raise, which the interface's does not.
    ~CapnpLink() noexcept override {}

    void Send(const qel::PPCMessage& msg) override
    {
        if (IsAnswered(msg)) {
            auto request = exchange_.askRequest();
            Encode(msg, request);
            answer_ = request.send();
        } else {
            auto request = exchange_.tellRequest();
            Encode(msg, request);
            request.send().wait(client_.getWaitScope());
        }
    }

    void Receive(qel::PPCMessage& msg) override
    {
        const auto response = KJ_ASSERT_NONNULL(answer_).wait(client_.getWaitScope());
        Decode(response.getAnswer(), msg);
        answer_ = nullptr;
    }

private:
    template <typename Request>
    static void Encode(const qel::PPCMessage& msg, Request& request)
    {
        const auto size = static_cast<unsigned>(msg.ByteSizeLong());
        msg.SerializeWithCachedSizesToArray(request.initMessage(size).begin());
    }

    capnp::EzRpcClient client_;
    rpc::Exchange::Client exchange_;
    kj::Maybe<capnp::RemotePromise<rpc::Exchange::AskResults>> answer_;
};

}  // namespace

std::unique_ptr<Daemon> Serve(const std::string& address)
{
    std::promise<void> listening;
    std::thread([&listening, address] { ServeForever(address, listening); }).detach();
    listening.get_future().wait();
    return std::make_unique<Daemon>();
}

std::unique_ptr<Link> Connect(const std::string& address)
{
    return std::make_unique<CapnpLink>(address);
}

}  // namespace bench
