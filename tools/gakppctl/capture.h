#ifndef GAKPPC_CAPTURE_H
#define GAKPPC_CAPTURE_H

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <istream>
#include <memory>
#include <string>

#include "common/record.h"

// The capture file that `gakppctl tap --write` makes and `replay` and `decode` read. All numbers are little-endian.
//
//   file:    8 bytes magic "GAKPPCAP", 4 bytes version (1), then records up to the file's end
//
//   record:  offset  size
//            0       8     time, microseconds since 1970-01-01 UTC
//            8       4     connection number, from 1, in the order of their opening
//            12      1     kind: 0 opened, 1 frame, 2 bytes that are no frame, 3 closed
//            13      1     direction: 0 to the daemon, 1 to the worker
//            14      2     reserved, 0
//            16      4     process id of the sender (opened and closed: of the worker)
//            20      4     user id of the same
//            24      8     length on the wire, the frame's length field included
//            32      4     stored length S; less than the length on the wire for a frame above 16 MiB
//            36      S     the bytes as they were on the wire
//
// The file of a killed tap may end inside a record.
namespace tools {

constexpr size_t kCaptureMagicSize = 8;
extern const char kCaptureMagic[kCaptureMagicSize + 1];
constexpr uint32_t kCaptureVersion = 1;

// Writes a new capture file. Throws ExitError when that is impossible.
class CaptureWriter {
public:
    explicit CaptureWriter(const std::string& path);
    void Write(const Record& record);
    void Flush();

private:
    std::string path_;
    std::unique_ptr<FILE, int (*)(FILE*)> file_;
};

// Reads a capture record by record. `in` must outlive it. Throws ExitError when the file is of another kind.
class CaptureReader {
public:
    explicit CaptureReader(std::istream& in);

    // False at the end.
    bool Next(Record& record);

    // Whether that end was inside a record.
    bool IsTruncated() const { return truncated_; }

private:
    std::istream& in_;
    uint64_t records_ = 0;
    bool truncated_ = false;
};

// Whether a file with this beginning is a capture.
bool IsCapture(const std::string& beginning);

// Opens a file to read. Throws ExitError, also for a directory.
std::ifstream OpenInput(const std::string& path);

constexpr char kCaptureIsTruncated[] = "the capture ends inside a record: it is incomplete";

}  // namespace tools

#endif
