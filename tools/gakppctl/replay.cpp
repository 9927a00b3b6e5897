// gakppctl replay: sends what the workers of a capture sent once more, with the pauses between.

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "common/capture.h"
#include "subcommands.h"

namespace tools {
namespace {

constexpr double kHighestSpeed = 1e6;
constexpr size_t kBufferSize = size_t{64} * 1024;

struct Options {
    std::string file;
    double speed = 1;
    uint32_t connection = 0;
    double wait = 0.2;
    double timeout = 5;
    bool json = false;
};

// Plays the workers' part of a capture. Each recorded connection becomes a connection of its own.
class Player {
public:
    explicit Player(const Options& options) : options_(options) {}

    void Play(const Record& record);
    void WaitForAnswers(const Deadline& deadline);
    void PrintSummary() const;

private:
    struct Connection {
        Fd socket;
        FrameStream answers;
    };

    void Pause(SystemTime recorded);
    Connection& ConnectionOf(uint32_t number);
    bool ReceiveSome(const Deadline& deadline);
    void Drain(Connection& connection);

    const Options& options_;
    std::map<uint32_t, Connection> connections_;
    std::optional<SystemTime> lastTime_;
    uint64_t sent_ = 0;
    uint64_t skipped_ = 0;
    uint64_t received_ = 0;
    uint64_t opened_ = 0;
};

Player::Connection& Player::ConnectionOf(uint32_t number)
{
    const auto found = connections_.find(number);
    if (found != connections_.end()) {
        return found->second;
    }
    ++opened_;
    Connection connection{ConnectToDaemon(Deadline(Seconds(options_.timeout))),
                          FrameStream([this](StreamItem&&) { ++received_; })};
    return connections_.emplace(number, std::move(connection)).first->second;
}

// Answers are taken during the pauses, so that the daemon is never held up.
void Player::Pause(SystemTime recorded)
{
    const auto last = lastTime_.value_or(recorded);
    lastTime_ = recorded;
    if (options_.speed > 0 && recorded > last) {
        const double seconds = std::chrono::duration<double>(recorded - last).count() / options_.speed;
        WaitForAnswers(Deadline(Seconds(std::min(seconds, kLongestSeconds))));
    } else {
        WaitForAnswers(Deadline(Clock::duration::zero()));
    }
}

void Player::Play(const Record& record)
{
    Pause(record.time);
    if (record.kind == RecordKind::kOpen) {
        ConnectionOf(record.connection);
    } else if (record.kind == RecordKind::kClose) {
        const auto found = connections_.find(record.connection);
        if (found != connections_.end()) {
            Drain(found->second);
            connections_.erase(found);
        }
    } else if (record.bytes.size() < record.wireLength) {
        ++skipped_;
    } else if (record.direction == Direction::kToDaemon) {
        const Connection& connection = ConnectionOf(record.connection);
        if (!connection.socket.valid()) {
            throw ExitError(kExitFailed, fmt::format("the daemon has closed connection {}, which still had messages "
                                                     "to send",
                                                     record.connection));
        }
        SendAll(connection.socket, record.bytes, Deadline(Seconds(options_.timeout)));
        ++sent_;
    }
}

void Player::Drain(Connection& connection)
{
    uint8_t buffer[kBufferSize];
    for (;;) {
        const ssize_t count = recv(connection.socket.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
        if (count > 0) {
            connection.answers.Feed(buffer, static_cast<size_t>(count));
        } else if (count == 0 || errno == ECONNRESET) {
            connection.socket.Reset();
            return;
        } else if (errno != EINTR) {
            return;
        }
    }
}

// Whether there was something before the deadline.
bool Player::ReceiveSome(const Deadline& deadline)
{
    std::vector<pollfd> wanted;
    for (const auto& [number, connection] : connections_) {
        wanted.push_back({connection.socket.get(), POLLIN, 0});  // one that has ended has no descriptor and is skipped
    }
    if (poll(wanted.data(), wanted.size(), deadline.RemainingMs()) <= 0) {
        return false;
    }
    for (auto& [number, connection] : connections_) {
        if (connection.socket.valid()) {
            Drain(connection);
        }
    }
    return true;
}

void Player::WaitForAnswers(const Deadline& deadline)
{
    while (ReceiveSome(deadline) && !deadline.Passed()) {
    }
}

void Player::PrintSummary() const
{
    if (skipped_ > 0) {
        PrintError(fmt::format("{} message(s) left out: the capture holds only their beginning", skipped_));
    }
    if (!options_.json) {
        Print(fmt::format("{} connection(s), {} message(s) sent, {} received\n", opened_, sent_, received_));
        return;
    }
    Json line;
    line["connections"] = opened_;
    line["sent"] = sent_;
    line["received"] = received_;
    line["left_out"] = skipped_;
    Print(JsonLine(line));
}

int Run(const Options& options)
{
    CaptureReader reader(OpenInput(options.file));
    Player player(options);
    bool found = options.connection == 0;
    for (Record record; reader.Next(record);) {
        if (options.connection == 0 || record.connection == options.connection) {
            found = true;
            player.Play(record);
        }
    }
    if (!found) {
        throw ExitError(kExitFailed, fmt::format("the capture has no connection {}", options.connection));
    }
    player.WaitForAnswers(Deadline(Seconds(options.wait)));
    player.PrintSummary();
    if (reader.IsTruncated()) {
        throw ExitError(kExitFailed, kCaptureIsTruncated);
    }
    return kExitOk;
}

}  // namespace

Subcommand AddReplay(CLI::App& program)
{
    CLI::App* app = program.add_subcommand(
        "replay", "Send the messages that a capture's workers sent to the daemon once more, as workers");
    auto options = std::make_shared<Options>();
    app->add_option("FILE", options->file, "The capture, made with --write by tap or gakppcd; -: standard input")
        ->required();
    app->add_option("--speed", options->speed, "Times as fast as recorded; 0: without pauses (1)")
        ->check(NumberUpTo(kHighestSpeed))
        ->type_name("FACTOR");
    AddCount(*app, "--connection", options->connection, "Only this connection of the capture");
    AddSeconds(*app, "--wait", options->wait, "Stay connected for this time after the last message (0.2)");
    AddSeconds(*app, "--timeout", options->timeout, "Limit for each connecting and sending (5)");
    app->add_flag("--json", options->json, "Print the summary as JSON");
    AddStandardOptions(*app,
                       "  $ gakppctl replay trace.pcap\n"
                       "  $ gakppctl replay trace.pcap --speed 0 --connection 2",
                       {kExitNoDaemon, kExitTimeLimit});
    return {app, [options] { return Run(*options); }};
}

}  // namespace tools
