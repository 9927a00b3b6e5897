// gRPC: one bidirectional stream for each worker, synchronous interface.

#include <grpcpp/grpcpp.h>

#include "candidate.h"
#include "exchange.grpc.pb.h"

namespace bench {
namespace {

class TalkService : public Exchange::Service {
public:
    grpc::Status Talk(grpc::ServerContext*, grpc::ServerReaderWriter<qel::PPCMessage, qel::PPCMessage>* stream) override
    {
        qel::PPCMessage msg;
        while (stream->Read(&msg)) {
            if (IsAnswered(msg)) {
                Require(stream->Write(AnswerTo(msg)), "Write");
            }
        }
        return grpc::Status::OK;
    }
};

class GrpcDaemon : public Daemon {
public:
    explicit GrpcDaemon(const std::string& address)
    {
        grpc::ServerBuilder builder;
        builder.AddListeningPort("unix:" + address, grpc::InsecureServerCredentials());
        builder.RegisterService(&service_);
        server_ = builder.BuildAndStart();
        Require(server_ != nullptr, "BuildAndStart");
    }

private:
    TalkService service_;
    std::unique_ptr<grpc::Server> server_;
};

class GrpcLink : public Link {
public:
    explicit GrpcLink(const std::string& address)
        : stub_(grpc::CreateChannel("unix:" + address, grpc::InsecureChannelCredentials())),
          stream_(stub_.Talk(&context_))
    {
    }
    ~GrpcLink() override
    {
        stream_->WritesDone();
        stream_->Finish();
    }

    void Send(const qel::PPCMessage& msg) override { Require(stream_->Write(msg), "Write"); }
    void Receive(qel::PPCMessage& msg) override { Require(stream_->Read(&msg), "Read"); }

private:
    grpc::ClientContext context_;
    Exchange::Stub stub_;
    std::unique_ptr<grpc::ClientReaderWriter<qel::PPCMessage, qel::PPCMessage>> stream_;
};

}  // namespace

std::unique_ptr<Daemon> Serve(const std::string& address)
{
    return std::make_unique<GrpcDaemon>(address);
}

std::unique_ptr<Link> Connect(const std::string& address)
{
    return std::make_unique<GrpcLink>(address);
}

}  // namespace bench
