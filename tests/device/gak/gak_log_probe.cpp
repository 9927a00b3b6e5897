#include "gak_log_probe.h"

#include "gak_log.h"

namespace gaktest {
namespace {

constexpr char kSourcePath[] = "probe/path";

}  // namespace

void ProbeInfo(const Argument& argument)
{
    GAK_INFO("argument %d", argument());
}

void ProbeInfoAs(const Argument& argument)
{
    GAK_INFO_AS("Public", "argument %d", argument());
}

void ProbeStatus(const std::function<uint32_t()>& status, const Argument& argument)
{
    GAK_STATUS(status(), "argument %d", argument());
}

void ProbeStatusAs(const std::function<uint32_t()>& status, const Argument& argument)
{
    GAK_STATUS_AS("Public", status(), "argument %d", argument());
}

void ProbeEvent(const Argument& argument)
{
    GAK_EVENT("argument %d", argument());
}

void ProbeEventAs(const Argument& argument)
{
    GAK_EVENT_AS("Public", "argument %d", argument());
}

}  // namespace gaktest
