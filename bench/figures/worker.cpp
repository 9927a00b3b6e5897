#include "worker.h"

namespace bench {

Link& Worker::MainLink()
{
    if (link_ == nullptr) {
        link_ = NewLink();
    }
    return *link_;
}

std::vector<std::unique_ptr<Link>>& Worker::Fleet(int count)
{
    while (fleet_.size() < static_cast<size_t>(count)) {
        fleet_.push_back(NewLink());
        AwaitDaemon(*fleet_.back());
    }
    return fleet_;
}

void AwaitDaemon(Link& link)
{
    qel::PPCMessage answer;
    link.Send(MakeMessage(qel::PPCMessage::START_RSP, kOneWayDevice));
    link.Receive(answer);
}

}  // namespace bench
