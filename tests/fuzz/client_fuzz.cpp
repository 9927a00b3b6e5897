// What a daemon may say to a worker, and what a worker may call: messages of any content, through a real socket, into
// the client's receive loop, after calls with any arguments. The input is a device, a wait type, calls, and a stream of
// messages (worker_stream.h). Statuses and every byte that leaves are compared with what the rules say.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <map>

#include "fuzz_input.h"
#include "gak.h"
#include "ppc.h"
#include "ppc_client.h"
#include "raw_peer.h"
#include "status_table.h"
#include "worker_stream.h"

namespace {

using gaktest::Bytes;
using gaktest::Fd;
using gaktest::RawMessage;
using gaktest::WorkerStream;
using qel::PpcClient;
using qel::PPCMessage;

constexpr uint32_t kServerId = 19280;
constexpr uint32_t kDevices = 4;
constexpr size_t kMostCalls = 2;
// Ended sessions are remembered: once that many have ended, every further one frees as much as it takes, and a leak of
// one input shows.
constexpr int kSessionsRemembered = 4096;

Fd listener;

// The daemon's end of the client's sessions, in the order in which they were opened, and what should arrive at each.
struct Peer {
    Fd socket;
    Bytes wanted;
};
std::vector<Peer> peers;

// By the key under which the client keeps a session: the index of its peer.
std::map<uint32_t, size_t> sessions;

uint32_t SessionKey(uint32_t device, uint32_t procType)
{
    return (1U << ((device * 8) % 32)) + procType;
}

// The peer of a session that the client has opened by now; one that was opened before is found again.
Peer& PeerOf(uint32_t device, uint32_t procType)
{
    const auto entry = sessions.emplace(SessionKey(device, procType), peers.size());
    if (entry.second) {
        peers.push_back({Fd(accept(listener.get(), nullptr, nullptr)), {}});
        FUZZ_CHECK(peers.back().socket.valid());
    }
    return peers[entry.first->second];
}

void Want(Peer& peer, const RawMessage& message)
{
    const Bytes frame = gaktest::PpcFrame(message);
    peer.wanted.insert(peer.wanted.end(), frame.begin(), frame.end());
}

// What has arrived at a peer is exactly what should have.
void CheckArrived(const Peer& peer)
{
    Bytes arrived(peer.wanted.size() + 1);
    const ssize_t got = recv(peer.socket.get(), arrived.data(), arrived.size(), MSG_DONTWAIT);
    if (peer.wanted.empty()) {
        FUZZ_CHECK(got == -1 && errno == EAGAIN);
        return;
    }
    arrived.resize(got > 0 ? static_cast<size_t>(got) : 0);
    FUZZ_CHECK(arrived == peer.wanted);
}

uint32_t OwnPid()
{
    return static_cast<uint32_t>(getpid());
}

// Wait types that are accepted go out as one of three process types.
uint32_t SentProcType(uint32_t waitType)
{
    return waitType == 0 || waitType == 2 ? waitType : 1;
}

// ---- Calls of the worker ----

void Report(uint32_t device, uint32_t waitType, PPCMessage::MsgType type)
{
    uint32_t sent = 0;
    uint32_t refused = qel::kStatusPpcCreateFail;
    uint32_t status = 0;
    switch (type) {
        case PPCMessage::HEARTBEAT:
            status = GakHeartbeatSend(device, waitType);
            break;
        case PPCMessage::ABNORMAL:
            status = GakDestory(device, waitType);
            break;
        default:
            sent = qel::kStatusOk;
            refused = qel::kStatusPpcClientInvalidParam;
            status = PpcClient::GetInstance()->SendPpcMsg(device, waitType, type);
            break;
    }
    if (device >= kDevices || static_cast<int32_t>(waitType) > 3) {
        FUZZ_CHECK(status == refused);
        return;
    }
    FUZZ_CHECK(status == sent);
    const uint32_t procType = SentProcType(waitType);
    Want(PeerOf(device, procType), {static_cast<uint32_t>(type), device, kServerId, procType, OwnPid(), 0, {}});
}

// The custom process has been reported long ago, so this does not wait. It goes out for the device that this process
// reported last, over the session for COMPUTE.
void AskForCustomProcess(uint32_t hostPid, const std::vector<std::string>& libNames)
{
    Report(1, PPCMessage::COMPUTE, PPCMessage::HEARTBEAT);
    std::vector<const char*> names;
    RawMessage wanted = {PPCMessage::NOTIFY_VEXOINFO, 1, kServerId, PPCMessage::CUSTOM_COMPUTE, OwnPid(), hostPid, {}};
    wanted.lib_names.emplace();
    for (const std::string& name : libNames) {
        names.push_back(name.c_str());
        wanted.lib_names->push_back(name.c_str());  // up to its first zero
    }
    FUZZ_CHECK(CreateOrFindCustPid(static_cast<uint32_t>(names.size()), names.data(), hostPid) == 0);
    Want(PeerOf(1, PPCMessage::COMPUTE), wanted);
}

void Call(gaktest::Input& input)
{
    switch (input.Byte() % 5) {
        case 0: {
            const uint32_t hostPid = input.Number();
            std::vector<std::string> libNames(input.Byte() % 4);
            for (std::string& name : libNames) {
                name = input.ShortText();
            }
            AskForCustomProcess(hostPid, libNames);
            break;
        }
        case 1:
            Report(input.Number(), input.Number(), PPCMessage::HEARTBEAT);
            break;
        case 2:
            Report(input.Byte() % 5, input.Byte() % 4, PPCMessage::HEARTBEAT);
            break;
        case 3:
            Report(input.Byte() % 5, input.Byte() % 4, PPCMessage::ABNORMAL);
            break;
        default:
            Report(input.Byte() % 5, input.Byte() % 4, PPCMessage::START_RSP);
            break;
    }
}

// ---- Messages of the daemon ----

// Runs the receive loop on a stream that the peer has sent.
void Receive(uint32_t device, uint32_t waitType, const WorkerStream& stream)
{
    PpcClient& client = *PpcClient::GetInstance();
    const uint32_t procType = client.GetPPCProcessType(waitType);
    FUZZ_CHECK(procType == (waitType < 3 ? waitType : 3));
    FUZZ_CHECK(client.GetPpcSession(device, static_cast<PPCMessage::ProcessType>(procType)) != nullptr);
    Peer& peer = PeerOf(device, procType);
    FUZZ_CHECK(gaktest::WriteAll(peer.socket, stream.ToBytes()));
    shutdown(peer.socket.get(), SHUT_WR);

    uint32_t wanted = stream.tail.empty() ? qel::kStatusPpcSocketClosed : qel::kStatusPpcSendRecvFail;
    for (const Bytes& encoding : stream.encodings) {
        const PPCMessage msg = WorkerStream::Decoded(encoding);
        if (msg.type() == PPCMessage::SHUTDOWN && msg.dest_id() == device) {
            Want(peer, {PPCMessage::SHUTDOWN_RSP, device, kServerId, procType, OwnPid(), 0, {}});
            wanted = qel::kStatusOk;
            break;
        }
    }
    FUZZ_CHECK(client.RecvData(device, waitType) == wanted);
}

void EndSessions()
{
    for (const Peer& peer : peers) {
        CheckArrived(peer);
    }
    PpcClient::GetInstance()->Destroy();
    peers.clear();
    sessions.clear();
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    listener = gaktest::RawListen(static_cast<int>(kServerId));
    FUZZ_CHECK(listener.valid());
    FUZZ_CHECK(ppcInit() == 0);
    google::protobuf::SetLogHandler(nullptr);  // it complains about names that are not UTF-8
    // Reports the custom process, once for the life of this one.
    const Bytes encoding = gaktest::EncodeMessage({PPCMessage::START_RSP, 0, 0, PPCMessage::CUSTOM_COMPUTE, 1, 0, {}});
    Bytes bytes = {1, static_cast<uint8_t>(encoding.size())};
    bytes.insert(bytes.end(), encoding.begin(), encoding.end());
    gaktest::Input input(bytes.data(), bytes.size());
    Receive(0, PPCMessage::COMPUTE, WorkerStream(input));
    EndSessions();
    for (int i = 0; i < kSessionsRemembered; ++i) {
        FUZZ_CHECK(PpcClient::GetInstance()->GetPpcSession(0, PPCMessage::ZOLT) != nullptr);
        PeerOf(0, PPCMessage::ZOLT);
        EndSessions();
    }
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    gaktest::Input input(data, size);
    const uint32_t device = input.Byte();
    const uint32_t waitType = input.Byte();
    for (size_t calls = input.Byte() % (kMostCalls + 1); calls > 0; --calls) {
        Call(input);
    }
    Receive(device, waitType, WorkerStream(input));
    EndSessions();
    return 0;
}
