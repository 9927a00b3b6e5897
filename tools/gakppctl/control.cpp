// gakppctl workers, shutdown, start-custom, stop: the orders of a running gakppcd, through its control socket.

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "common/control_path.h"
#include "common/deadline.h"
#include "common/message.h"
#include "common/ppc_socket.h"
#include "subcommands.h"

namespace tools {
namespace {

constexpr size_t kLongestAnswer = 64UL * 1024 * 1024;
constexpr char kRow[] = "{:>6}  {:<14}  {:>8}  {:>8}  {:<9}  {:>10}  {:>10}  {}\n";

struct Options {
    std::string control;
    std::string device;
    std::string pid;
    bool wait = false;
    bool json = false;
    double timeout = 5;
};

std::string ControlPath(const Options& options)
{
    const std::string path = options.control.empty() ? DefaultControlPath() : options.control;
    if (path.empty()) {
        throw ExitError(kExitUsage, fmt::format("--control is needed: {}", kNoControlPath));
    }
    if (path.size() >= sizeof(sockaddr_un::sun_path)) {
        throw ExitError(kExitUsage, fmt::format("--control: {:.40}... is too long for a socket", path));
    }
    return path;
}

// One connection to the daemon's control socket. What fails, or takes longer than the deadline, is an ExitError.
class Connection {
public:
    Connection(const std::string& path, const Deadline& deadline)
        : deadline_(deadline), socket_(ConnectToDaemon(deadline, path.c_str()))
    {
    }

    // Sends an order and returns the line that answers it, with its newline.
    std::string Ask(const std::string& order)
    {
        SendAll(socket_, Bytes(order.begin(), order.end()), deadline_);
        std::string answer;
        while (answer.empty() || answer.back() != '\n') {
            if (!Read(answer)) {
                throw ExitError(kExitFailed, "the daemon has ended the connection without an answer");
            }
        }
        return answer;
    }

    // Returns when the daemon has ended the connection.
    void WaitForEnd()
    {
        std::string rest;
        while (Read(rest)) {
        }
    }

private:
    // Appends what comes; false at the end of the connection.
    bool Read(std::string& text)
    {
        char buffer[65536];
        if (text.size() > kLongestAnswer) {
            throw ExitError(kExitFailed, "the answer is too long");
        }
        if (!WaitReadable(socket_.get(), deadline_)) {
            throw ExitError(kExitTimeLimit, "the daemon has not answered in time");
        }
        const ssize_t count = recv(socket_.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
        text.append(buffer, count > 0 ? static_cast<size_t>(count) : 0);
        return count > 0 || (count == -1 && (errno == EAGAIN || errno == EINTR));
    }

    const Deadline deadline_;
    const Fd socket_;
};

uint32_t ParseNumber(const std::string& name, const std::string& text)
{
    uint32_t number = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end) {
        throw CLI::ValidationError(name, fmt::format("{} is not a number from 0 to 4294967295", text));
    }
    return number;
}

Json OrderOf(const char* name, const Options& options)
{
    Json order;
    order["order"] = name;
    if (!options.pid.empty()) {
        order["device"] = ParseNumber("DEVICE", options.device);
        order["pid"] = ParseNumber("PID", options.pid);
    }
    if (options.wait) {
        order["wait"] = true;
    }
    return order;
}

Json ParseAnswer(const std::string& line)
{
    Json answer = Json::parse(line, nullptr, false);
    if (!answer.is_object() || !answer["ok"].is_boolean()) {
        throw ExitError(kExitFailed, "what answers there is no gakppcd");
    }
    return answer;
}

// The daemon's answer, which is printed with --json.
Json Give(const char* name, const Options& options)
{
    Connection connection(ControlPath(options), Deadline(Seconds(options.timeout)));
    const Json order = OrderOf(name, options);
    const std::string line = connection.Ask(JsonLine(order));
    Json answer = ParseAnswer(line);
    if (order["order"] == "stop" && options.wait) {
        connection.WaitForEnd();
    }
    if (options.json) {
        Print(line);
    }
    if (!answer["ok"].get<bool>()) {
        throw ExitError(kExitFailed, answer.at("error").get<std::string>());
    }
    return answer;
}

std::string AgeText(const Json& seconds)
{
    return seconds.is_number() ? fmt::format("{:.1f} s", seconds.get<double>()) : "-";
}

std::string Row(const Json& worker)
{
    const Json& realPid = worker.at("real_pid");
    return fmt::format(kRow, worker.at("device").get<uint32_t>(), worker.at("process_type").get<std::string>(),
                       worker.at("pid").get<uint32_t>(), realPid.is_null() ? "-" : realPid.dump(),
                       worker.at("state").get<std::string>(), worker.at("heartbeats").get<uint64_t>(),
                       AgeText(worker.at("heartbeat_age")), worker.at("since").get<std::string>());
}

int ShowWorkers(const Options& options)
{
    const Json answer = Give("workers", options);
    if (options.json) {
        return kExitOk;
    }
    std::string text =
        fmt::format(kRow, "DEVICE", "PROCESS TYPE", "PID", "REAL PID", "STATE", "HEARTBEATS", "LAST", "SINCE");
    for (const Json& worker : answer.at("workers")) {
        text += Row(worker);
    }
    Print(Printable(text));
    return kExitOk;
}

// Names the workers that an order was about, one a line.
int Order(const char* name, const Options& options)
{
    const Json answer = Give(name, options);
    std::string text;
    for (const Json& worker : answer.at("workers")) {
        text += fmt::format("device {} {} pid {} {}\n", worker.at("device").get<uint32_t>(),
                            worker.at("process_type").get<std::string>(), worker.at("pid").get<uint32_t>(),
                            worker.at("state").get<std::string>());
    }
    if (!options.json && !text.empty()) {
        Print(Printable(text));
    }
    return kExitOk;
}

std::shared_ptr<Options> AddOptions(CLI::App& app)
{
    auto options = std::make_shared<Options>();
    app.add_option("--control", options->control,
                   fmt::format("The daemon's control socket {}", kDefaultControlPathHelp))
        ->type_name("PATH");
    AddSeconds(app, "--timeout", options->timeout, "Limit for connecting, the answer and --wait (5)");
    app.add_flag("--json", options->json, "Print the daemon's answer, one line of JSON");
    return options;
}

void AddWait(CLI::App& app, Options& options, const std::string& help)
{
    app.add_flag("--wait", options.wait, help);
}

void AddWorker(CLI::App& app, Options& options, const std::string& device)
{
    app.add_option(device, options.device, "The worker's device")->required();
    app.add_option("PID", options.pid, "The process id that the worker claims");
}

constexpr char kAboutStop[] =
    "Stop a running gakppcd in order, with all its workers\n\n"
    "As its command quit and SIGTERM do: it orders its workers to shut down, gives them the time of its --grace, and "
    "ends.";

const std::vector<ExitCode> kStatuses{kExitNoDaemon, kExitTimeLimit};

}  // namespace

Subcommand AddWorkers(CLI::App& program)
{
    CLI::App* app = program.add_subcommand(
        "workers",
        "Show the workers of a running gakppcd\n\nThe daemon's own table: PID is what a worker claims to be, REAL PID "
        "the process that has connected, SINCE the time at which the daemon started it or first heard of it. gakppctl "
        "list asks the kernel instead, about any daemon.");
    auto options = AddOptions(*app);
    AddStandardOptions(*app,
                       "  $ gakppctl workers\n"
                       "  $ gakppctl workers --json --control /run/gakppcd/control",
                       kStatuses);
    return {app, [options] { return ShowWorkers(*options); }};
}

Subcommand AddShutdown(CLI::App& program)
{
    CLI::App* app = program.add_subcommand(
        "shutdown",
        "Tell one worker of a running gakppcd, or all, to shut down\n\nPrints who has been told; --wait, who has "
        "acknowledged it and gone.");
    auto options = AddOptions(*app);
    AddWorker(*app, *options, "DEVICE|all");
    AddWait(*app, *options, "Wait until they have acknowledged it and gone; it is a failure if one goes otherwise");
    app->callback([options] {
        if ((options->device == "all") != options->pid.empty()) {
            throw CLI::RequiredError("DEVICE PID or all");
        }
        OrderOf("shutdown", *options);  // throws where there is no number
    });
    AddStandardOptions(*app,
                       "  $ gakppctl shutdown 0 4711\n"
                       "  $ gakppctl shutdown all --wait --timeout 30",
                       kStatuses);
    return {app, [options] { return Order(options->pid.empty() ? "shutdown-all" : "shutdown", *options); }};
}

Subcommand AddStartCustom(CLI::App& program)
{
    CLI::App* app = program.add_subcommand(
        "start-custom", "Let a running gakppcd start the custom process that a worker has asked for");
    auto options = AddOptions(*app);
    AddWorker(*app, *options, "DEVICE");
    app->get_option("PID")->required();
    app->callback([options] { OrderOf("start-custom", *options); });
    AddStandardOptions(*app,
                       "  $ gakppctl start-custom 0 4711\n"
                       "  $ gakppctl start-custom 0 4711 --json",
                       kStatuses);
    return {app, [options] { return Order("start-custom", *options); }};
}

Subcommand AddStop(CLI::App& program)
{
    CLI::App* app = program.add_subcommand("stop", kAboutStop);
    auto options = AddOptions(*app);
    AddWait(*app, *options, "Wait until it has ended; it is a failure if a worker did not shut down in order");
    AddStandardOptions(*app,
                       "  $ gakppctl stop\n"
                       "  $ gakppctl stop --wait --timeout 10",
                       kStatuses);
    return {app, [options] { return Order("stop", *options); }};
}

}  // namespace tools
