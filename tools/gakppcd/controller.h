#ifndef GAKPPC_CONTROLLER_H
#define GAKPPC_CONTROLLER_H

#include <gakppc/qel_message.pb.h>

#include "commands.h"
#include "spawner.h"
#include "view.h"
#include "workers.h"

namespace tools {

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

    // Reports the device's custom process to `asker` as soon as it runs. It is started when there is none.
    void ProvideCustom(Worker& asker);

    // Any command but kQuit. Throws std::invalid_argument when there is no such worker.
    void Execute(const Command& command);

    void ShutdownAll();

    // From now on every worker that starts is ordered to shut down at once, and none is spawned.
    void BeginStop() { stopping_ = true; }

private:
    bool Send(qel::PPCMessage::MsgType type, int about, Worker& to);
    void OrderShutdown(Worker& worker);

    const Spawner& spawner_;
    WorkerTable& workers_;
    View& view_;
    bool stopping_ = false;
    bool spawnFailed_ = false;
};

}  // namespace tools

#endif
