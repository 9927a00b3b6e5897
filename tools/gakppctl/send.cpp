// gakppctl send: any message, or any bytes, by hand: to the daemon as a worker, or as the daemon to a worker.

#include <fmt/format.h>
#include <gakppc/gak_limits.h>
#include <gakppc/ppc.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "common/listeners.h"
#include "common/record.h"
#include "common/signals.h"
#include "subcommands.h"

namespace tools {
namespace {

struct Options {
    std::string type;
    uint32_t device = 0;
    std::string process = "COMPUTE";
    int64_t pid = -1;
    uint32_t hostPid = 0;
    std::vector<std::string> libs;
    std::string message;
    std::string raw;
    std::string payload;
    bool toWorker = false;
    uint32_t count = 1;
    double interval = 0;
    double wait = 0;
    std::string expect;
    double timeout = 5;
    RecordStyle style;
};

// One end of a connection that shows what it sends and receives.
class Connection {
public:
    Connection(Fd socket, const Options& options)
        : socket_(std::move(socket)),
          options_(options),
          peer_(PeerOf(socket_)),
          sent_([this](StreamItem&& item) {
              OnItem(std::move(item), !options_.toWorker, {getpid(), getuid()});
          }),
          received_([this](StreamItem&& item) { OnItem(std::move(item), options_.toWorker, peer_); })
    {
    }

    void Send(const Bytes& bytes)
    {
        SendAll(socket_, bytes, Deadline(Seconds(options_.timeout)));
        sent_.Feed(bytes.data(), bytes.size());
    }

    // Receives until `deadline`, the peer's end or a message of the expected type.
    void Receive(const Deadline& deadline);

    bool SawExpected() const { return sawExpected_; }
    bool PeerEnded() const { return ended_; }
    pid_t PeerPid() const { return peer_.pid; }
    void FinishStreams()
    {
        sent_.Finish();
        received_.Finish();
    }

private:
    void OnItem(StreamItem&& item, bool toDaemon, const Peer& sender);

    Fd socket_;
    const Options& options_;
    Peer peer_;
    FrameStream sent_;
    FrameStream received_;
    bool sawExpected_ = false;
    bool ended_ = false;
};

void Connection::OnItem(StreamItem&& item, bool toDaemon, const Peer& sender)
{
    const bool received = toDaemon == options_.toWorker;
    if (received && !options_.expect.empty()) {
        const Decoded decoded = DecodeItem(item);
        sawExpected_ = sawExpected_ || (decoded.message && decoded.message->type() == ParseType(options_.expect));
    }
    Record record = RecordOf(std::move(item));
    record.connection = 1;
    record.direction = toDaemon ? Direction::kToDaemon : Direction::kToWorker;
    record.peer = sender;
    Print(Show(record, options_.style));
}

void Connection::Receive(const Deadline& deadline)
{
    Bytes buffer(size_t{64} * 1024);
    while (!ended_ && !sawExpected_ && WaitReadable(socket_.get(), deadline)) {
        const ssize_t count = recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count > 0) {
            received_.Feed(buffer.data(), static_cast<size_t>(count));
        } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
            ended_ = true;
        }
    }
}

qel::PPCMessage BuildMessage(const Options& options, pid_t workerPid)
{
    if (!options.message.empty()) {
        return FromJson(options.message);
    }
    qel::PPCMessage message;
    message.set_type(ParseType(options.type));
    message.set_src_id(options.toWorker ? qel::kPpcServerId : options.device);
    message.set_dest_id(options.toWorker ? options.device : qel::kPpcServerId);
    message.set_proc_type(ParseProcess(options.process));
    message.set_sub_proc_pid(static_cast<uint32_t>(options.pid >= 0 ? options.pid : workerPid));
    message.set_host_pid(options.hostPid);
    for (const std::string& name : options.libs) {
        message.mutable_lib_names()->add_lib_name(name);
    }
    return message;
}

Bytes BytesToSend(const Options& options, pid_t workerPid)
{
    if (!options.raw.empty()) {
        return FromHex(options.raw);
    }
    if (!options.payload.empty()) {
        return FrameOf(FromHex(options.payload));
    }
    return FrameOfMessage(BuildMessage(options, workerPid));
}

// Stands in for the daemon until one worker has come.
Fd AwaitWorker(const Deadline& deadline)
{
    if (!ListenersAt(kSocketPath).empty()) {
        throw ExitError(kExitFailed, "a daemon runs: its own orders reach the worker");
    }
    ppcInit();  // makes the directory; when that fails, listening tells why
    unlink(kSocketPath);
    const SignalFd signals{SIGINT, SIGTERM};  // the socket is removed before they end the program
    const Fd listener = ListenAt(kSocketPath, 10);
    pollfd wanted[] = {{listener.get(), POLLIN, 0}, {signals.get(), POLLIN, 0}};
    poll(wanted, 2, deadline.RemainingMs());
    Fd worker(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    unlink(kSocketPath);
    signals.Unblock();
    if (!worker.valid()) {
        throw ExitError(kExitTimeLimit, "no worker has connected");
    }
    return worker;
}

int Run(const Options& options)
{
    const Deadline deadline(Seconds(options.timeout));
    Connection connection(options.toWorker ? AwaitWorker(deadline) : ConnectToDaemon(deadline), options);
    if (options.toWorker) {
        // A worker reports its start first; it is received only to be shown.
        connection.Receive(Deadline(std::chrono::milliseconds(200)));
    }
    const Bytes bytes = BytesToSend(options, options.toWorker ? connection.PeerPid() : getpid());
    for (uint32_t i = 0; i < options.count; ++i) {
        connection.Send(bytes);
        if (i + 1 < options.count) {
            connection.Receive(Deadline(Seconds(options.interval)));
        }
    }
    const bool expects = !options.expect.empty();
    connection.Receive(Deadline(Seconds(expects && options.wait == 0 ? options.timeout : options.wait)));
    connection.FinishStreams();
    if (!expects || connection.SawExpected()) {
        return kExitOk;
    }
    throw ExitError(connection.PeerEnded() ? kExitFailed : kExitTimeLimit, options.expect + " has not come");
}

void AddContent(CLI::App& app, Options& options)
{
    app.add_option("TYPE", options.type,
                   "START_RSP, SHUTDOWN_RSP, HEARTBEAT, NOTIFY_VEXOINFO, ABNORMAL, SHUTDOWN, "
                   "SOCKET_CLOSE or any number");
    app.add_option("--device", options.device, "The worker's device (0)")->type_name("N");
    app.add_option("--type", options.process, "ZOLT, COMPUTE, CUSTOM_COMPUTE or any number (COMPUTE)")
        ->type_name("TYPE");
    app.add_option("--pid", options.pid, "The worker's process id (as a worker this process, otherwise the real one)")
        ->check(CLI::Range(int64_t{0}, int64_t{UINT32_MAX}))
        ->type_name("PID");
    app.add_option("--host-pid", options.hostPid, "The host process (0)")->type_name("PID");
    app.add_option("--libs", options.libs, "Library names")->delimiter(',')->type_name("NAME[,NAME...]");
    app.add_option("--message", options.message, "The whole message in the schema's JSON mapping")->type_name("JSON");
    app.add_option("--raw", options.raw, "Send these bytes as they are, without a frame")->type_name("HEX");
    app.add_option("--payload", options.payload, "Send a frame with these bytes in it")->type_name("HEX");
}

void AddConduct(CLI::App& app, Options& options)
{
    app.add_flag("--to-worker", options.toWorker,
                 "Stand in for the daemon, which must not run, and send to the first worker that connects");
    AddCount(app, "--count", options.count, "Send it so many times (1)");
    AddSeconds(app, "--interval", options.interval, "Time between two of them (0)");
    AddSeconds(app, "--wait", options.wait, "Stay connected for this time afterwards and show what comes (0)");
    app.add_option("--expect", options.expect, "Wait for a message of this type, as long as --wait or --timeout say")
        ->type_name("TYPE");
    AddSeconds(app, "--timeout", options.timeout, "Limit for connecting and sending (5)");
    app.add_flag("--json", options.style.json, "Print one JSON object per line");
    app.add_flag("--hex", options.style.hex, "Print the bytes as well");
}

void CheckOptions(const Options& options)
{
    const int contents = static_cast<int>(!options.type.empty()) + static_cast<int>(!options.message.empty()) +
                         static_cast<int>(!options.raw.empty()) + static_cast<int>(!options.payload.empty());
    if (contents != 1) {
        throw CLI::ValidationError("send", "needs one of TYPE, --message, --raw and --payload");
    }
    try {
        BytesToSend(options, 0);
        ParseType(options.expect.empty() ? "0" : options.expect);
    } catch (const std::invalid_argument& error) {
        throw CLI::ValidationError("send", error.what());
    }
}

}  // namespace

Subcommand AddSend(CLI::App& program)
{
    CLI::App* app = program.add_subcommand("send", "Send any message by hand, as a worker or to a worker");
    auto options = std::make_shared<Options>();
    AddContent(*app, *options);
    AddConduct(*app, *options);
    app->callback([options] { CheckOptions(*options); });
    AddStandardOptions(*app,
                       "  $ gakppctl send HEARTBEAT --device 2 --type ZOLT --pid 4711\n"
                       "  $ gakppctl send START_RSP --expect SHUTDOWN --timeout 30\n"
                       "  $ gakppctl send SHUTDOWN --to-worker --device 0 --expect SHUTDOWN_RSP\n"
                       "  $ gakppctl send --message '{\"type\":\"ABNORMAL\",\"src_id\":1}'\n"
                       "  $ gakppctl send --raw 0000 --wait 1",
                       {kExitNoDaemon, kExitTimeLimit});
    return {app, [options] {
                options->style.coloured = OutputIsColoured();
                return Run(*options);
            }};
}

}  // namespace tools
