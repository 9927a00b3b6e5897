// The library, through its public interface. GAKPPC_BENCH_LOG=info writes its lines of level INFO to /dev/null.

#include <gakppc/gak.h>
#include <gakppc/gak_limits.h>
#include <gakppc/ppc_client.h>
#include <gakppc/ppc_server.h>
#include <gakppc/status_table.h>

#include <cstdio>
#include <cstdlib>

#include "candidate.h"
#include "vlog.h"

namespace bench {
namespace {

constexpr int kInfoLevel = 1;
constexpr GakWaitType kCompute = 1;

// Once in a process. Lines that are always written (a session that closes is an event) must not flood the terminal.
bool Prepare()
{
    Require(freopen("/dev/null", "w", stderr) != nullptr, "/dev/null");
    if (getenv("GAKPPC_BENCH_LOG") != nullptr) {
        Require(vlog_setlevel(kInfoLevel) == 0, "vlog_setlevel");
    }
    Require(ppcInit() == 0, "ppcInit");
    return true;
}

void Handle(const qel::PPCMessage& msg)
{
    if (IsAnswered(msg)) {
        Require(qel::PpcServer::GetInstance().SendData(AnswerTo(msg)) == qel::kStatusOk, "SendData");
    }
}

class GakppcDaemon : public Daemon {
public:
    GakppcDaemon()
    {
        for (const auto type :
             {qel::PPCMessage::START_RSP, qel::PPCMessage::HEARTBEAT, qel::PPCMessage::NOTIFY_VEXOINFO}) {
            server_.RegPPCSerMsgProcFunc(type, Handle);
        }
        Require(server_.CreateServer(qel::kPpcServerId) == qel::kStatusOk, "CreateServer");
    }

    void Tidy() override { server_.JoinAllPPCRcvThreads(); }

private:
    qel::PpcServer& server_ = qel::PpcServer::GetInstance();
};

// The client keeps a session for each device; answers come back on the one that was sent on last.
class GakppcLink : public Link {
public:
    ~GakppcLink() override { client_.Destroy(); }

    void SendHeartbeat(uint32_t device) override
    {
        lastDevice_ = device;
        Require(GakHeartbeatSend(device, kCompute) == 0, "GakHeartbeatSend");
    }

    void Send(const qel::PPCMessage& msg) override
    {
        lastDevice_ = msg.src_id();
        Require(client_.SendData(Session(), msg) == qel::kStatusOk, "SendData");
    }

    void Receive(qel::PPCMessage& msg) override
    {
        Require(client_.RecvMsg(Session(), msg) == qel::kStatusOk, "RecvMsg");
    }

private:
    void*& Session()
    {
        void*& session = sessions_[lastDevice_];
        if (session == nullptr) {
            session = client_.GetPpcSession(lastDevice_, qel::PPCMessage::COMPUTE);
            Require(session != nullptr, "GetPpcSession");
        }
        return session;
    }

    qel::PpcClient& client_ = *qel::PpcClient::GetInstance();
    uint32_t lastDevice_ = kEchoDevice;
    void* sessions_[2] = {};
};

}  // namespace

std::unique_ptr<Daemon> Serve(const std::string&)
{
    Prepare();
    return std::make_unique<GakppcDaemon>();
}

std::unique_ptr<Link> Connect(const std::string&)
{
    static const bool prepared = Prepare();
    (void)prepared;
    return std::make_unique<GakppcLink>();
}

}  // namespace bench
