#ifndef GAKPPC_DAEMON_H
#define GAKPPC_DAEMON_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "common/deadline.h"
#include "common/signals.h"
#include "control_server.h"
#include "controller.h"
#include "message_queue.h"
#include "service_manager.h"
#include "spawner.h"
#include "view.h"
#include "wire_capture.h"
#include "workers.h"

namespace tools {

struct DaemonOptions {
    std::vector<SpawnRequest> spawn;
    std::string workerProgram;
    bool autoCustom = false;
    bool replace = false;
    bool json = false;
    double grace = 3;
    double duration = -1;
    std::string log;
    std::string capture;
    std::string control;  // empty: the default path
};

// The daemon: serves the socket until a signal, a command, an order or its time limit ends it. All decisions are taken
// on the main thread; the server's threads only fill the queue of received messages.
class Daemon {
public:
    explicit Daemon(const DaemonOptions& options);

    // The exit status: kExitOk when every worker that was left has ended in order.
    int Run();

private:
    void Open();
    void OpenControl();
    void Serve();
    void SpawnWorkers();
    void Step(LineReader& input);
    size_t CountRunning() const;
    int StepTimeoutMs() const;

    void OnMessage(const ReceivedMessage& received);
    void OnSignals();
    void OnInput(LineReader& input);
    void OnCommand(const std::string& line);
    ControlAnswer OnOrder(const std::string& line);
    // Any command but kHelp, wherever it has come from.
    Outcome Execute(const Command& command);
    std::optional<std::string> StopAnswerText() const;
    void Reap();

    void BeginStop();
    bool IsStopped() const;
    void NoteCaptureProblem();
    bool FinishCapture();
    void KillRemaining();

    const DaemonOptions& options_;
    SignalFd signals_{SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGWINCH, SIGCONT};
    Spawner spawner_;
    WorkerTable workers_;
    View view_;
    std::optional<WireCapture> capture_;
    Controller controller_{spawner_, workers_, view_};
    std::optional<Deadline> end_;
    std::optional<Deadline> stopLimit_;  // set when the stop begins
    bool orderly_ = true;
    bool hasEnded_ = false;
    ServiceManager serviceManager_;
    std::unique_ptr<ControlServer> control_;  // null when there is no control socket
};

}  // namespace tools

#endif
