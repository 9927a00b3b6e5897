#ifndef GAKPPC_RECORD_FILTER_H
#define GAKPPC_RECORD_FILTER_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "common/record.h"

namespace tools {

// Which records are shown: those that agree with one value of each list, of which an empty one accepts all. A record
// without the property that a list is about agrees with none.
struct RecordFilter {
    std::vector<uint32_t> devices;   // the worker's
    std::vector<uint32_t> types;     // PPCMessage::ProcessType
    std::vector<uint32_t> pids;      // the worker's, as the kernel or the message has it
    std::vector<uint32_t> messages;  // PPCMessage::MsgType

    bool Accepts(const Record& record) const;
};

// Adds --device, --type, --message and the option for process ids, each of which may be given several times.
void AddFilterOptions(CLI::App& app, RecordFilter& filter, const std::string& pidOption = "--pid,--worker");

}  // namespace tools

#endif
