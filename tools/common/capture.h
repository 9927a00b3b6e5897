#ifndef GAKPPC_CAPTURE_H
#define GAKPPC_CAPTURE_H

#include <pcap/pcap.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "exit_error.h"
#include "record.h"

// Captures: pcap files of link type USER0 (147), one packet for each record. The writer's have the host's byte order
// and nanoseconds; the reader takes whatever libpcap reads. A packet is a pseudo-header, in network byte order, and the
// bytes of the record:
//
//   offset  size
//   0       1     version of the pseudo-header, 1
//   1       1     kind: 0 opened, 1 frame, 2 bytes that are no frame, 3 closed
//   2       1     direction: 0 to the daemon, 1 to the worker
//   3       1     reserved, 0
//   4       4     connection number, from 1, in the order of their opening
//   8       4     process id of the sender (opened and closed: of the worker); 0 when unknown
//   12      4     user id of the same
//   16            the bytes as they were on the wire
//
// The packet's original length is that of the pseudo-header and of the bytes on the wire, the frame's length field
// included. The captured length is smaller when only their beginning is stored. The file of a killed writer may end
// inside a packet.
namespace tools {

constexpr uint8_t kPseudoHeaderVersion = 1;
constexpr size_t kPseudoHeaderSize = 16;
// Neither libpcap nor Wireshark reads a longer packet of this link type; the rest of a longer frame is cut.
constexpr size_t kSnapLength = 262144;

struct FileCloser {
    void operator()(FILE* file) const;
};
using File = std::unique_ptr<FILE, FileCloser>;

// Writes a new capture file. Throws ExitError when that is impossible.
class CaptureWriter {
public:
    explicit CaptureWriter(const std::string& path);
    void Write(const Record& record);
    void Flush();

private:
    struct Closer {
        void operator()(pcap_dumper_t* dumper) const { pcap_dump_close(dumper); }
    };

    void Check(bool written) const;

    std::string path_;
    std::unique_ptr<pcap_dumper_t, Closer> dumper_;
    Bytes packet_;
};

// Reads a capture record by record. Throws ExitError when the file is of another kind, or damaged.
class CaptureReader {
public:
    explicit CaptureReader(File file);

    // False at the end.
    bool Next(Record& record);

    // Whether that end was inside a record.
    bool IsTruncated() const { return truncated_; }

private:
    struct Closer {
        void operator()(pcap_t* pcap) const { pcap_close(pcap); }
    };

    ExitError Damage(const std::string& what) const;

    std::unique_ptr<pcap_t, Closer> pcap_;
    uint64_t records_ = 0;
    bool truncated_ = false;
};

// Whether the file begins as a pcap or pcapng file. The beginning stays to be read.
bool IsCapture(FILE* file);

// Opens a file to read, "-" is standard input. Throws ExitError, also for a directory.
File OpenInput(const std::string& path);

constexpr char kCaptureIsTruncated[] = "the capture ends inside a record: it is incomplete";

}  // namespace tools

#endif
