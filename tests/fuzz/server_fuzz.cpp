// What a worker may say to the daemon: messages of any content, through a real socket, into the server's receiving,
// checking, session table and dispatch. The input is a stream of messages (worker_stream.h). What the handlers are
// given is compared with what the rules for messages say.

#include <sys/socket.h>

#include <future>
#include <optional>
#include <stdexcept>
#include <thread>

#include "fuzz_input.h"
#include "ppc.h"
#include "ppc_server.h"
#include "raw_peer.h"
#include "status_table.h"
#include "worker_stream.h"

namespace {

using gaktest::Bytes;
using gaktest::Fd;
using gaktest::WorkerStream;
using qel::PPCMessage;
using qel::PpcServer;

constexpr uint32_t kServerId = 19280;
// Sessions of the inputs come from an endpoint of their own, so that they are received on this thread.
constexpr int kInputServerId = 1;
// The session table grows with every process id. A daemon that is created again begins with an empty one.
constexpr unsigned kInputsPerLife = 1024;
constexpr uint64_t kThreadNumber = 7;
constexpr uint32_t kDevices = 4;
// No handler is registered for these messages.
constexpr uint32_t kUnhandledType = PPCMessage::NOTIFY_VEXOINFO;
// The handlers fail on messages with this host_pid.
constexpr uint32_t kFailingHostPid = 13;

PpcServerHead* inputEndpoint = nullptr;
std::thread::id inputThread;
std::vector<std::string> handled;  // encodings, in order
std::optional<std::promise<void>> heard;

void Handle(const PPCMessage& msg)
{
    if (std::this_thread::get_id() != inputThread) {
        if (msg.type() == PPCMessage::HEARTBEAT) {
            heard->set_value();
        }
        return;
    }
    handled.push_back(msg.SerializePartialAsString());
    if (msg.type() == PPCMessage::HEARTBEAT) {
        PPCMessage order = msg;
        order.set_type(PPCMessage::SHUTDOWN);
        order.set_dest_id(msg.src_id());
        FUZZ_CHECK(PpcServer::GetInstance().SendData(order) == qel::kStatusOk);
    }
    if (msg.host_pid() == kFailingHostPid) {
        throw std::runtime_error("a handler that fails");
    }
}

// The daemon, with one worker whose first message has come: until then the server does not receive.
class Daemon {
public:
    Daemon()
    {
        for (uint32_t type = PPCMessage::START_RSP; type <= PPCMessage::SOCKET_CLOSE; ++type) {
            if (type != kUnhandledType) {
                server_.RegPPCSerMsgProcFunc(type, &Handle);
            }
        }
        FUZZ_CHECK(server_.CreateServer(kServerId) == qel::kStatusOk);
        heard.emplace();
        worker_ = gaktest::RawConnect(static_cast<int>(kServerId));
        FUZZ_CHECK(gaktest::WriteAll(worker_, gaktest::PpcFrame({PPCMessage::HEARTBEAT, 0, 0, 0, 1, 0, {}})));
        heard->get_future().wait();
    }
    ~Daemon() { server_.Destroy(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

private:
    PpcServer& server_ = PpcServer::GetInstance();
    Fd worker_;
};

void KeepDaemonFresh()
{
    static std::optional<Daemon> daemon;
    static unsigned inputs = 0;
    if (inputs++ % kInputsPerLife == 0) {
        daemon.reset();
        daemon.emplace();
    }
}

bool IsAcceptable(const PPCMessage& msg)
{
    // Type and process type are compared as signed numbers.
    return msg.src_id() < kDevices && static_cast<int32_t>(msg.proc_type()) <= PPCMessage::CUSTOM_COMPUTE &&
           static_cast<int32_t>(msg.type()) <= PPCMessage::ABNORMAL;
}

bool HasHandler(const PPCMessage& msg)
{
    const auto type = static_cast<uint32_t>(msg.type());
    return type <= PPCMessage::SOCKET_CLOSE && type != kUnhandledType;
}

// What should come of a stream.
struct Outcome {
    std::vector<std::string> handled;
    std::optional<PPCMessage> lastAccepted;
    bool closed = false;  // by the server: the stream came to its end, good or bad
};

Outcome OutcomeOf(const WorkerStream& stream)
{
    Outcome outcome;
    for (const Bytes& encoding : stream.encodings) {
        const PPCMessage msg = WorkerStream::Decoded(encoding);
        if (!IsAcceptable(msg)) {
            return outcome;
        }
        outcome.lastAccepted = msg;
        if (HasHandler(msg)) {
            outcome.handled.push_back(msg.SerializePartialAsString());
        }
    }
    outcome.closed = true;
    if (stream.tail.empty()) {
        PPCMessage notice;
        if (outcome.lastAccepted.has_value()) {
            notice = *outcome.lastAccepted;
        } else {
            notice.set_src_id(kDevices);
            notice.set_proc_type(PPCMessage::MAXPROCTYPE);
        }
        notice.set_type(PPCMessage::SOCKET_CLOSE);
        notice.set_dest_id(kServerId);
        outcome.handled.push_back(notice.SerializePartialAsString());
    }
    return outcome;
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    inputThread = std::this_thread::get_id();
    google::protobuf::SetLogHandler(nullptr);  // it complains about names that are not UTF-8
    FUZZ_CHECK(ppcInit() == 0);
    FUZZ_CHECK(drvPpcServerCreate(kInputServerId, &inputEndpoint) == PPC_OK);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    KeepDaemonFresh();
    gaktest::Input input(data, size);
    const WorkerStream stream(input);
    const Fd worker = gaktest::RawConnect(kInputServerId);
    PpcSession* session = nullptr;
    FUZZ_CHECK(drvPpcSessionAccept(inputEndpoint, &session) == PPC_OK);
    FUZZ_CHECK(gaktest::WriteAll(worker, stream.ToBytes()));
    shutdown(worker.get(), SHUT_WR);

    const Outcome outcome = OutcomeOf(stream);
    handled.clear();
    PpcServer::GetInstance().RecvData(session, kThreadNumber);
    FUZZ_CHECK(handled == outcome.handled);
    FUZZ_CHECK((drvPpcSessionClose(session) == PPC_OK) == !outcome.closed);
    if (outcome.lastAccepted.has_value()) {
        const PPCMessage& last = *outcome.lastAccepted;
        FUZZ_CHECK(PpcServer::GetInstance().GetPpcSession(last.src_id(), last.sub_proc_pid()) == session);
    }
    return 0;
}
