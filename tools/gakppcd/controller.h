#ifndef GAKPPC_CONTROLLER_H
#define GAKPPC_CONTROLLER_H

#include <gakppc/qel_message.pb.h>

#include <string>
#include <vector>

#include "commands.h"
#include "spawner.h"
#include "view.h"
#include "workers.h"

namespace tools {

// What has come of a command.
struct Outcome {
    std::vector<WorkerTable::Key> workers;  // that it was about
    std::string problem;                    // why it could not be carried out, at least for one of them
};

// What the daemon does to its workers: starts them, orders their shutdown and answers their requests. Main thread only.
class Controller {
public:
    Controller(const Spawner& spawner, WorkerTable& workers, View& view)
        : spawner_(spawner), workers_(workers), view_(view)
    {
    }

    void Spawn(uint32_t device, int type);
    bool SpawnFailed() const { return spawnFailed_; }

    // `worker` has reported its start.
    void OnStarted(Worker& worker);

    // `worker` has asked for the device's custom process, which is to be started without a command.
    void OnCustomRequest(Worker& worker);

    // The commands that are about workers: kShutdown, kShutdownAll and kStartCustom.
    Outcome Execute(const Command& command);

    Outcome ShutdownAll();

    // From now on every worker that starts is ordered to shut down at once, and none is spawned.
    void BeginStop() { stopping_ = true; }

private:
    // Each returns why it could not be done, nothing when it has been done.
    std::string TrySpawn(uint32_t device, int type);
    std::string Send(qel::PPCMessage::MsgType type, int about, Worker& to);
    std::string OrderShutdown(Worker& worker);
    // Reports the device's custom process to `asker` as soon as it runs. It is started when there is none.
    std::string ProvideCustom(Worker& asker);

    // Shows the problem of something that nobody waits for.
    void Note(const std::string& problem);

    const Spawner& spawner_;
    WorkerTable& workers_;
    View& view_;
    bool stopping_ = false;
    bool spawnFailed_ = false;
};

}  // namespace tools

#endif
