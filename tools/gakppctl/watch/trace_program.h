#ifndef GAKPPC_TRACE_PROGRAM_H
#define GAKPPC_TRACE_PROGRAM_H

#include <cstddef>
#include <string>

namespace tools {

// How much of a payload bpftrace reads with one call (BPFTRACE_STRLEN can be no more), and how much with several.
constexpr size_t kTracePiece = 200;
constexpr size_t kTraceLimit = 5 * kTracePiece;

// What the program prints: lines that begin with one of these letters. Times are hexadecimal, all else is decimal.
constexpr char kTraceAttached = 'A';        // time
constexpr char kTraceOpened = 'O';          // time fd peer
constexpr char kTraceEnded = 'E';           // time fd peer
constexpr char kTraceSent = 'S';            // thread time fd status length src dest pid type process-type
constexpr char kTraceReceived = 'R';        // likewise
constexpr char kTracePieceOfPayload = 'P';  // thread time offset bytes: of the thread's last message
// A counter of the lines with O, E, S and R, which bpftrace prints by itself when it ends.
constexpr char kTraceTotal[] = "@reports";

// The bpftrace program for the tracepoints in the file `library`. With `onlyPid` other than 0 it reports nothing of
// other processes; bpftrace itself sees to that where it is started with -p.
std::string TraceProgram(const std::string& library, int onlyPid);

}  // namespace tools

#endif
