// gakppctl workers, shutdown, start-custom, stop: the orders of a running gakppcd, through its control socket.

#include <fmt/format.h>

#include <charconv>
#include <memory>
#include <nlohmann/json.hpp>

#include "common/deadline.h"
#include "common/message.h"
#include "control_client.h"
#include "subcommands.h"

namespace tools {
namespace {

constexpr char kRow[] = "{:>6}  {:<14}  {:>8}  {:>8}  {:<9}  {:>10}  {:>10}  {}\n";

struct Options {
    std::string control;
    std::string device;
    std::string pid;
    bool wait = false;
    bool json = false;
    double timeout = 5;
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

// The daemon's answer, which is printed with --json.
Json Give(const char* name, const Options& options)
{
    ControlClient client(options.control, Deadline(Seconds(options.timeout)));
    const Json order = OrderOf(name, options);
    const std::string line = client.Ask(JsonLine(order));
    Json answer = ParseControlAnswer(line);
    if (order["order"] == "stop" && options.wait) {
        client.WaitForEnd();
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
    return fmt::format(kRow, NumberIn(worker, "device"), worker.at("process_type").get<std::string>(),
                       NumberIn(worker, "pid"), realPid.is_null() ? "-" : realPid.dump(),
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
        text += fmt::format("device {} {} pid {} {}\n", NumberIn(worker, "device"),
                            worker.at("process_type").get<std::string>(), NumberIn(worker, "pid"),
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
    AddControlOption(app, options->control);
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

std::vector<ExitCode> Statuses()
{
    return {kExitNoDaemon, kExitTimeLimit};
}

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
                       Statuses());
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
                       Statuses());
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
                       Statuses());
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
                       Statuses());
    return {app, [options] { return Order("stop", *options); }};
}

}  // namespace tools
