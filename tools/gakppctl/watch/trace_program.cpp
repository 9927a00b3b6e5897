#include "trace_program.h"

#include <fmt/format.h>

namespace tools {
namespace {

constexpr char kDeclarations[] = R"(
struct gakppc_message {
    unsigned long long payload;
    unsigned int length;
    unsigned int src_id;
    unsigned int dest_id;
    unsigned int proc_type;
};
)";

// bpftrace reads what its probes have stored only after it has attached all of them, so this arrives last.
std::string ReportAttached()
{
    return fmt::format("BEGIN {{ printf(\"{}\\n\"); }}\n", kTraceAttached);
}

std::string Probe(const std::string& library, const std::string& name, int onlyPid)
{
    return fmt::format("usdt:{}:gakppc:{}{}", library, name, onlyPid == 0 ? "" : fmt::format(" /pid == {}/", onlyPid));
}

std::string ReportConnection(const std::string& probe, char letter)
{
    return fmt::format("{} {{ {} = count(); printf(\"{} %llx %d %d\\n\", nsecs, arg0, arg1); }}\n", probe, kTraceTotal,
                       letter);
}

// bpftrace can read no more of a payload than `kTracePiece` bytes with one call.
std::string ReportPieces()
{
    std::string text;
    for (size_t offset = 0; offset < kTraceLimit; offset += kTracePiece) {
        text += fmt::format(
            "    if ($n > {0}) {{ printf(\"{1} %d %llx %d %rx\\n\", tid, $t, {0}, buf($m->payload + {0}, $n - {0})); "
            "}}\n",
            offset, kTracePieceOfPayload);
    }
    return text;
}

std::string ReportMessage(const std::string& probe, char letter, const std::string& time)
{
    return fmt::format(
               "{} {{\n"
               "    {} = count();\n"
               "    {}\n"
               "    $m = (struct gakppc_message *)arg4;\n"
               "    $n = (uint64)$m->length;\n"
               "    printf(\"{} %d %llx %d %u %u %u %u %u %d %d\\n\", tid, $t, arg3, arg5, $m->length, $m->src_id,"
               " $m->dest_id, arg2, arg0, $m->proc_type);\n",
               probe, kTraceTotal, time, letter) +
           ReportPieces() + "}\n";
}

}  // namespace

std::string TraceProgram(const std::string& library, int onlyPid)
{
    const auto probe = [&](const std::string& name) { return Probe(library, name, onlyPid); };
    // A message is dated by the begin of its sending: its answer may be received before message_sent is reached.
    const std::string sendTime =
        "$t = @began[tid] > 0 ? @began[tid] : nsecs;\n"
        "    delete(@began[tid]);";
    return kDeclarations + ReportAttached() + ReportConnection(probe("session_opened"), kTraceOpened) +
           ReportConnection(probe("session_ended"), kTraceEnded) + probe("message_sending") +
           " { @began[tid] = nsecs; }\n" + ReportMessage(probe("message_sent"), kTraceSent, sendTime) +
           ReportMessage(probe("message_received"), kTraceReceived, "$t = nsecs;") + "END { clear(@began); }\n";
}

}  // namespace tools
